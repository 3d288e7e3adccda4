#pragma once

#include "connectionbudget.h"

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
// made from the identity, under one deadline from accept to takeover. It
// counts every connection until it ends, sessions too, in a ConnectionBudget
// per address group: when a budget is spent, the group that holds the most
// makes room with its least advanced connection.
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

    // How many connections all together may hold, at most (-1: no limit):
    // fewer than the descriptors left.
    void SetClientRoom(int room) { budget.SetTotalLimit(room); }

    // The connection from this peer endpoint that was Ready, now the caller's
    // to parent and end; its session starts when the event loop next runs.
    // Null when there is none.
    TlsServerSocket *TakeOver(const QHostAddress &address, quint16 port);

    // Connections closed since the last call: not taken over in time; to make
    // room for newer ones of their own group or of the biggest; for want of
    // descriptors; new ones over their network's rate; new ones from a host
    // at its share; and any connection of the biggest host, for a newcomer
    // from another when all together hold the client room.
    struct Drops
    {
        int late = 0;
        int displaced = 0;
        int refused = 0;
        int throttled = 0;
        int overShare = 0;
        int evicted = 0;
    };
    Drops TakeDrops();

    static constexpr int DeadlineMs = 10000;

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

    bool Admit(TlsServerSocket *socket, const ConnectionBudget::Groups &groups);
    void Watch(TlsServerSocket *socket);
    void Drop(ConnectionBudget::Id id);
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
    // Every connection until it ends, sessions included.
    ConnectionBudget budget;
    QHash<QPair<QHostAddress, quint16>, TlsServerSocket *> readyAt;
    Drops drops;
};
