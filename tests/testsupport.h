#pragma once

// Small helpers the test programs share.
#include <QDir>
#include <QFile>
#include <QProcessEnvironment>
#include <QUrl>
#ifdef QT_NETWORK_LIB
#include <QRandomGenerator>
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

// A manager as a service runs it: TarnSrv copied into the folder, with a
// TarnSrv.cfg that names the port and a log folder of its own.
inline bool MakeManagerFolder(const QString &folder, const QString &manager, quint16 port)
{
    return QFile::copy(manager, folder + QStringLiteral("/TarnSrv")) && QDir(folder).mkpath(QStringLiteral("log"))
        && WriteFile(folder + QStringLiteral("/TarnSrv.cfg"),
                     QStringLiteral("PortNr = %1\nLoggingFolder = %2/log\n").arg(port).arg(folder).toUtf8());
}

// No display, and settings, identity, lock and temporary files in the folder
// (settings under config/), away from the user's and from a running manager.
inline QProcessEnvironment ManagerEnvironment(const QString &folder)
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    for (const char *name : {"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM"})
        env.remove(QLatin1String(name));
    env.insert(QStringLiteral("XDG_CONFIG_HOME"), folder + QStringLiteral("/config"));
    for (const char *name : {"XDG_DATA_HOME", "XDG_RUNTIME_DIR", "TMPDIR"})
        env.insert(QLatin1String(name), folder);
    env.insert(QStringLiteral("TARN_INSTANCE_LOCK"), folder + QStringLiteral("/instance.lock"));
    return env;
}

// The first number of each line of a file, such as the start times a child
// script notes; lines that begin with none are passed over.
inline QList<qint64> FirstNumbers(const QString &path)
{
    QList<qint64> numbers;
    const QList<QByteArray> lines = FileBytes(path).split('\n');
    for (const QByteArray &line : lines) {
        bool ok = false;
        const qint64 number = line.split(' ').value(0).toLongLong(&ok);
        if (ok)
            numbers.append(number);
    }
    return numbers;
}

#ifdef QT_NETWORK_LIB
// A port nobody listens on once this returns, below the kernel's ephemeral
// range: a port in that range may become the local end of any outgoing
// connection meanwhile (the attack tests make thousands), and a server's
// later listen on it would fail.
inline quint16 FreePort()
{
    int low = 32768;
    QFile range(QStringLiteral("/proc/sys/net/ipv4/ip_local_port_range"));
    if (range.open(QIODevice::ReadOnly))
        low = range.readLine().simplified().split(' ').value(0).toInt();
    constexpr int First = 10000;
    for (int attempt = 0; low > First && attempt < 100; ++attempt) {
        QTcpServer probe;
        if (probe.listen(QHostAddress::Any, quint16(QRandomGenerator::global()->bounded(First, low))))
            return probe.serverPort();
    }
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
