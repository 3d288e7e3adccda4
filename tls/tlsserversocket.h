#pragma once

#include <QByteArray>
#include <QTcpSocket>

typedef struct ssl_st SSL;
typedef struct ssl_ctx_st SSL_CTX;
class QSocketNotifier;

// The server side of one TLS connection. It reads and writes its descriptor
// itself and runs OpenSSL over memory buffers with a context that every
// connection shares. Until the client's HTTP request head is complete it
// shows nothing; from then on the WebSocket layer sees it as a plain TCP
// socket.
class TlsServerSocket : public QTcpSocket
{
    Q_OBJECT

public:
    // Takes over an accepted descriptor and waits for the client's hello.
    TlsServerSocket(SSL_CTX *context, qintptr descriptor, QObject *parent);
    ~TlsServerSocket() override;

    // Ends the connection at once, dropping whatever waits to be sent.
    void Abort();
    // Past this many bytes waiting to be sent, counted in bytesToWrite(), a
    // write ends the connection and UnsentOverrun is emitted first.
    void SetUnsentLimit(qint64 bytes) { unsentLimit = bytes; }

    // Everything that waits to be sent: written but not encrypted yet, and
    // encrypted but not taken by the system.
    qint64 bytesToWrite() const override;
    qint64 bytesAvailable() const override;
    bool canReadLine() const override;
    void close() override;
    void disconnectFromHost() override;

    static constexpr qint64 DefaultUnsentLimit = 256 * 1024;
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
    bool ContinueHandshake();
    bool Decrypt();
    void CheckRequestHead(qint64 before);
    void EncryptPending();
    void Flush();
    void WriteToPeer();
    void UpdateReading();
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
    qint64 unsentLimit = DefaultUnsentLimit;
    bool secure = false;
    bool ready = false;
    bool closing = false;
};
