#pragma once

#include <QTcpServer>

typedef struct ssl_ctx_st SSL_CTX;
class TlsIdentity;
class TlsServerSocket;

// The server's listening socket: it runs the TLS handshake of every accepted
// connection with one OpenSSL context made from the identity, and hands over
// each connection whose handshake succeeded. Failed or abandoned handshakes
// are deleted here.
class TlsListener : public QTcpServer
{
    Q_OBJECT

public:
    // Check IsValid(): an identity OpenSSL refuses gives no context.
    TlsListener(const TlsIdentity &identity, QObject *parent);
    ~TlsListener() override;

    bool IsValid() const { return context != nullptr; }

signals:
    void Encrypted(TlsServerSocket *socket);

protected:
    void incomingConnection(qintptr descriptor) override;

private:
    SSL_CTX *context = nullptr;
};
