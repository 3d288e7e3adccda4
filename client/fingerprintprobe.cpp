#include "fingerprintprobe.h"

#include "fingerprint.h"

#include <QEventLoop>
#include <QSslConfiguration>
#include <QSslSocket>
#include <QTimer>

namespace Tarn {

QStringList ProbeFingerprints(const QList<QUrl> &urls, int timeoutMs)
{
    QStringList fingerprints;
    if (urls.isEmpty())
        return fingerprints;
    // No trusted authorities, so that every certificate ends in sslErrors,
    // where it is noted and the handshake is left to fail.
    QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
    configuration.setCaCertificates({});

    QEventLoop loop;
    QObject sockets;
    int pending = urls.size();
    auto finish = [&](QSslSocket *socket) {
        // Once, whichever signal comes first.
        socket->disconnect(&loop);
        if (--pending == 0)
            loop.quit();
    };
    for (int i = 0; i < urls.size(); ++i) {
        fingerprints << QString();
        auto *socket = new QSslSocket(&sockets);
        socket->setSslConfiguration(configuration);
        QObject::connect(socket, &QSslSocket::sslErrors, &loop, [&, i, socket] {
            fingerprints[i] = Fingerprint(socket->peerCertificate());
            finish(socket);
        });
        QObject::connect(socket, &QAbstractSocket::errorOccurred, &loop, [&, socket] { finish(socket); });
        socket->connectToHostEncrypted(urls.at(i).host(), quint16(urls.at(i).port()));
    }
    QTimer::singleShot(timeoutMs, &loop, &QEventLoop::quit);
    loop.exec();
    return fingerprints;
}

} // namespace Tarn
