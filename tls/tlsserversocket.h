#pragma once

#include "connectionbudget.h"
#include "streambio.h"

#include <QByteArray>
#include <QTcpSocket>

#include <memory>

typedef struct ssl_st SSL;
typedef struct ssl_ctx_st SSL_CTX;
class QSocketNotifier;

// What the connections of one listener may leave unsent beyond their own
// share, together: with every connection allowed a large queue of its own, a
// crowd that never reads would hold their number times that.
struct UnsentPool
{
    qint64 used = 0;
    static constexpr qint64 Capacity = 32 * 1024 * 1024;
};

// The server side of one TLS connection. It reads and writes its descriptor
// itself and runs OpenSSL over memory buffers with a context that every
// connection shares. Until the client's HTTP request head is complete it
// shows nothing; the WebSocket layer then sees it as a plain TCP socket, and
// gets what follows the head once the session has started.
class TlsServerSocket : public QTcpSocket
{
    Q_OBJECT

public:
    // Takes over an accepted descriptor and waits for the client's hello.
    TlsServerSocket(SSL_CTX *context, qintptr descriptor, std::shared_ptr<UnsentPool> pool, QObject *parent);
    ~TlsServerSocket() override;

    // Ends the connection at once, dropping whatever waits to be sent.
    void Abort();
    // The session over this connection exists: input past the request head flows.
    void StartSession();
    // A write that would leave more than this waiting, counted in
    // bytesToWrite(), or more than OwnUnsentBytes when the pool is spent,
    // ends the connection; UnsentOverrun is emitted first.
    void SetUnsentLimit(qint64 bytes) { unsentLimit = bytes; }
    // How far it has come, for a budget that must close one.
    ConnectionProgress Progress() const;

    // Everything that waits to be sent: written but not encrypted yet, and
    // encrypted but not taken by the system.
    qint64 bytesToWrite() const override;
    qint64 bytesAvailable() const override;
    bool canReadLine() const override;
    void close() override;
    void disconnectFromHost() override;

    static constexpr qint64 OwnUnsentBytes = 64 * 1024;
    // A request head longer than this ends the connection.
    static constexpr int MaxRequestHeadBytes = 16 * 1024;

signals:
    // TLS is established and the request head has arrived whole.
    void Ready();
    void UnsentOverrun();
    // The connection is over, whichever way and in whichever phase it ended.
    void Ended();

protected:
    qint64 readData(char *data, qint64 maxSize) override;
    qint64 writeData(const char *data, qint64 size) override;

private:
    void ReadFromPeer();
    bool Take(const char *bytes, qint64 size);
    bool TakeHello(const char *bytes, qint64 size);
    bool Feed(const char *bytes, qint64 size);
    bool ContinueHandshake();
    bool Decrypt();
    void CheckRequestHead(qint64 before);
    void EncryptPending();
    void WriteToPeer();
    void UpdateReading();
    void AccountUnsent();
    void Finish();

    SSL_CTX *context;
    qintptr descriptor;
    QSocketNotifier *readNotifier;
    QSocketNotifier *writeNotifier = nullptr;
    SSL *ssl = nullptr;
    // The first bytes, until they hold a whole ClientHello.
    QByteArray hello;
    QByteArray plaintext;
    QByteArray unencrypted;
    QByteArray encrypted;
    // OpenSSL reads what Feed lends it and writes to encrypted.
    StreamBio::Ends ends{nullptr, 0, &encrypted};
    std::shared_ptr<UnsentPool> pool;
    // What this connection takes from the pool now.
    qint64 pooled = 0;
    qint64 unsentLimit = OwnUnsentBytes + UnsentPool::Capacity;
    bool secure = false;
    bool ready = false;
    bool started = false;
    bool closing = false;
};
