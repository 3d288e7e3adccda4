#pragma once

// Small helpers the test programs share.
#include <QFile>
#include <QUrl>
#ifdef QT_NETWORK_LIB
#include <QTcpServer>
#endif

struct ClientRecord;

namespace testsupport {

const QString SessionA = QStringLiteral("{aaaaaaaa-0000-0000-0000-000000000001}");
const QString SessionB = QStringLiteral("{bbbbbbbb-0000-0000-0000-000000000002}");

inline QByteArray FileBytes(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<no file>");
}

inline bool WriteFile(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
}

#ifdef QT_NETWORK_LIB
// A loopback port nobody listens on once this returns.
inline quint16 FreePort()
{
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost, 0);
    return probe.serverPort();
}
#endif

inline QUrl LocalUrl(quint16 port)
{
    return QUrl(QStringLiteral("wss://127.0.0.1:%1").arg(port));
}

// A template, so that programs without the server's types can use the rest.
template <typename R = ClientRecord> R Record(const QString &session, const QString &name)
{
    R rec;
    rec.sessionUuid = QUuid(session);
    rec.guestName = name;
    return rec;
}

} // namespace testsupport
