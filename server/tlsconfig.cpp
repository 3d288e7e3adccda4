// The server admits the old SSL 3 / TLS 1.0 protocol setting, whose enumerator
// Qt hides at the project's deprecation level; this file alone may see it.
#undef QT_DISABLE_DEPRECATED_BEFORE
#define QT_DISABLE_DEPRECATED_BEFORE 0x050E00

#include "tlsconfig.h"

#include "tarnresources.h"

#include <QFile>
#include <QSslCertificate>
#include <QSslKey>

QSslConfiguration LoadTlsConfiguration()
{
    InitTarnResources();
    QFile certFile(QStringLiteral(":/ssl/localhost.cert"));
    QFile keyFile(QStringLiteral(":/ssl/localhost.key"));
    // Unreadable material is not checked: the endpoint then listens and handshakes fail.
    certFile.open(QIODevice::ReadOnly);
    keyFile.open(QIODevice::ReadOnly);
    const QSslCertificate certificate(&certFile, QSsl::Pem);
    const QSslKey key(&keyFile, QSsl::Rsa, QSsl::Pem, QSsl::PrivateKey, QByteArray());
    certFile.close();
    keyFile.close();

    QSslConfiguration config;
    config.setPeerVerifyMode(QSslSocket::VerifyNone);
    config.setLocalCertificate(certificate);
    config.setPrivateKey(key);
    config.setProtocol(QSsl::TlsV1SslV3);
    return config;
}
