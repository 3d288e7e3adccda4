#pragma once

#include <QElapsedTimer>
#include <QHash>
#include <QHostAddress>
#include <QPair>
#include <QTcpServer>
#include <QTimer>

#include <list>
#include <memory>

typedef struct ssl_ctx_st SSL_CTX;
class TlsIdentity;
class TlsServerSocket;
struct UnsentPool;

// The server's listening socket. It owns every connection from accept until
// the session server takes it over: their TLS runs with one OpenSSL context
// made from the identity, under one deadline from accept to takeover and a
// budget of connections in that phase, overall and per peer address. When
// the budget is spent, the oldest connection makes room for the new one.
class TlsListener : public QTcpServer
{
    Q_OBJECT

public:
    // Check IsValid(): an identity OpenSSL refuses gives no context.
    TlsListener(const TlsIdentity &identity, QObject *parent);
    ~TlsListener() override;

    bool IsValid() const { return context != nullptr; }

    // In place of QTcpServer's listen and close, which do not know that on
    // Unix the listener accepts by itself.
    bool Listen(const QHostAddress &address, quint16 port);
    void Close();

    // The connection from this peer endpoint that was Ready, now the caller's
    // to parent and end; its session starts when the event loop next runs.
    // Null when there is none.
    TlsServerSocket *TakeOver(const QHostAddress &address, quint16 port);

    // Connections closed since the last call, for not being taken over in
    // time, to make room for newer ones, and for want of descriptors.
    struct Drops
    {
        int late = 0;
        int displaced = 0;
        int refused = 0;
    };
    Drops TakeDrops();

    static constexpr int DeadlineMs = 10000;
    static constexpr int MaxPending = 1000;
    static constexpr int MaxPendingPerAddress = 512;

signals:
    // TLS is up and the request head is there: over to the WebSocket layer.
    void Ready(TlsServerSocket *socket);
    // A connection ended before it was taken over.
    void Released();

protected:
    void incomingConnection(qintptr descriptor) override;

private:
    struct Pending
    {
        TlsServerSocket *socket;
        qint64 acceptedMs;
    };
    using PendingList = std::list<Pending>;

    void MakeRoomFor(const QHostAddress &address);
    void Drop(TlsServerSocket *socket);
    void Forget(TlsServerSocket *socket);
    void CloseLate();

    SSL_CTX *context = nullptr;
    // Unix only, where the listener accepts by itself; gone before QTcpServer
    // closes the socket it watches.
    std::unique_ptr<QObject> acceptor;
    // Shared by every connection, those taken over included.
    std::shared_ptr<UnsentPool> unsentPool;
    QElapsedTimer clock;
    QTimer deadlineTimer;
    // Oldest first; the indexes find an entry without a walk.
    PendingList pending;
    QHash<TlsServerSocket *, PendingList::iterator> pendingOf;
    QHash<QHostAddress, int> pendingFrom;
    QHash<QPair<QHostAddress, quint16>, TlsServerSocket *> readyAt;
    Drops drops;
};
