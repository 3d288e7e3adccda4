#pragma once

#include <QByteArray>
#include <QTcpSocket>

typedef struct ssl_st SSL;
typedef struct ssl_ctx_st SSL_CTX;
typedef struct bio_st BIO;

// The server side of one TLS connection, run by OpenSSL over memory buffers
// with a context shared by every connection, and seen by the WebSocket layer
// as a plain TCP socket once the TLS handshake is done. QSslSocket builds a
// new OpenSSL context, key and certificate included, for each connection:
// that was a quarter of the server's time in a burst of handshakes.
class TlsServerSocket : public QTcpSocket
{
    Q_OBJECT

public:
    // Takes over an accepted descriptor and waits for the client's hello.
    TlsServerSocket(SSL_CTX *context, qintptr descriptor, QObject *parent);
    ~TlsServerSocket() override;

    bool IsEncrypted() const { return encrypted; }
    // The connection is over (this socket's own state says "unconnected"
    // during the TLS handshake too).
    bool IsClosed() const { return transport->state() == UnconnectedState; }
    // Bytes encrypted and waiting for the network.
    qint64 EncryptedBytesToWrite() const;
    // Ends the connection at once, dropping whatever waits to be sent.
    void Abort();

    qint64 bytesAvailable() const override;
    qint64 bytesToWrite() const override;
    bool canReadLine() const override;
    void close() override;
    void disconnectFromHost() override;

signals:
    void Encrypted();
    // The handshake failed or the connection went before it finished.
    void HandshakeFailed();

protected:
    qint64 readData(char *data, qint64 maxSize) override;
    qint64 writeData(const char *data, qint64 size) override;

private:
    void EncryptPending();
    void ReceiveRaw();
    void ContinueHandshake();
    void Decrypt();
    void SendPending();
    void Fail();
    void TransportDisconnected();

    QTcpSocket *transport;
    SSL *ssl = nullptr;
    BIO *incoming = nullptr; // owned by ssl
    BIO *outgoing = nullptr; // owned by ssl
    QByteArray plaintext;
    QByteArray unencrypted;
    bool encrypted = false;
    bool readPaused = false;
};
