#pragma once

// What the attack tests share: the real manager as a child process, and the
// hand-made frames and connections of a hostile client.
#include "../testsupport.h"

#include <QDir>
#include <QElapsedTimer>
#include <QHostAddress>
#include <QProcess>
#include <QSslSocket>
#include <QTemporaryDir>
#include <QTest>
#include <QUuid>

#include <algorithm>
#include <memory>
#include <vector>
#include <unistd.h>

namespace attacks {

using Sockets = std::vector<std::unique_ptr<QSslSocket>>;

inline int CountConnected(const Sockets &sockets)
{
    return int(std::count_if(sockets.begin(), sockets.end(),
                             [](const auto &s) { return s->state() == QAbstractSocket::ConnectedState; }));
}

// The manager, headless as a service runs it, in a private folder whose log
// the checks read. prefix runs it under another program (prlimit, say),
// which must exec it so that the process id stays its own.
class Manager
{
public:
    bool Start(quint16 port, const QStringList &prefix = {})
    {
        const QString program = dir.filePath(QStringLiteral("TarnSrv"));
        if (!QFile::exists(program) && !QFile::copy(QStringLiteral(TARN_MANAGER_PATH), program))
            return false;
        if (!testsupport::WriteFile(dir.filePath(QStringLiteral("TarnSrv.cfg")),
                                    QStringLiteral("PortNr = %1\nLoggingFolder = %2\n").arg(port).arg(dir.path()).toUtf8()))
            return false;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("XDG_CONFIG_HOME"), dir.filePath(QStringLiteral("config")));
        env.insert(QStringLiteral("TARN_INSTANCE_LOCK"), dir.filePath(QStringLiteral("instance.lock")));
        process.setProcessEnvironment(env);
        // Nothing may block on a full pipe.
        process.setStandardOutputFile(QProcess::nullDevice());
        process.setStandardErrorFile(QProcess::nullDevice());
        const QStringList arguments{QStringLiteral("--headless"), QStringLiteral("--start")};
        if (prefix.isEmpty())
            process.start(program, arguments);
        else
            process.start(prefix.front(), prefix.mid(1) + QStringList{program} + arguments);
        return process.waitForStarted();
    }

    void Stop()
    {
        process.terminate();
        if (!process.waitForFinished(5000))
            process.kill();
        process.waitForFinished(5000);
    }

    qint64 RssKb() const { return StatusField("\nVmRSS:"); }

    // User and system time so far, in milliseconds.
    qint64 CpuMs() const
    {
        const QByteArray stat = testsupport::FileBytes(QStringLiteral("/proc/%1/stat").arg(process.processId()));
        // Fields after the command name, which may hold spaces: utime and stime are the 12th and 13th.
        const QList<QByteArray> fields = stat.mid(stat.lastIndexOf(')') + 2).split(' ');
        return (fields.value(11).toLongLong() + fields.value(12).toLongLong()) * 1000 / sysconf(_SC_CLK_TCK);
    }

    int OpenFds() const
    {
        const QDir fds(QStringLiteral("/proc/%1/fd").arg(process.processId()));
        return int(fds.entryList(QDir::NoDotAndDotDot | QDir::System).size());
    }

    QByteArray Log() const { return testsupport::FileBytes(dir.filePath(QStringLiteral("TarnSrvSvc.html"))); }

    QTemporaryDir dir;
    QProcess process;

private:
    qint64 StatusField(const char *name) const
    {
        const QByteArray status = testsupport::FileBytes(QStringLiteral("/proc/%1/status").arg(process.processId()));
        const int at = status.indexOf(name);
        return at < 0 ? -1 : status.mid(at + int(qstrlen(name)), 20).simplified().split(' ').value(0).toLongLong();
    }
};

// A session of its own, so that every such peer is listed.
inline QByteArray Origin(const QByteArray &name)
{
    return "," + QUuid::createUuid().toByteArray() + ",," + name;
}

// A masked client frame whose header may declare more payload than follows.
inline QByteArray Frame(quint8 opcode, const QByteArray &payload, quint64 declared, bool last = true)
{
    QByteArray frame;
    frame.append(char((last ? 0x80 : 0) | opcode));
    const int lengthBytes = declared < 126 ? 0 : declared < 65536 ? 2 : 8;
    frame.append(char(0x80 | (lengthBytes == 0 ? int(declared) : lengthBytes == 2 ? 126 : 127)));
    for (int shift = 8 * (lengthBytes - 1); shift >= 0; shift -= 8)
        frame.append(char((declared >> shift) & 0xff));
    const QByteArray mask("\x11\x22\x33\x44", 4);
    frame.append(mask);
    for (int i = 0; i < payload.size(); ++i)
        frame.append(char(payload.at(i) ^ mask.at(i % 4)));
    return frame;
}

inline QByteArray UpgradeRequest(quint16 port, const QByteArray &origin)
{
    return "GET / HTTP/1.1\r\nHost: 127.0.0.1:" + QByteArray::number(port)
        + "\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
          "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n"
          "Origin: " + origin + "\r\n\r\n";
}

// Waits for a condition with a deadline, running the event loop.
template <typename Condition> bool WaitFor(Condition condition, int timeoutMs)
{
    QElapsedTimer elapsed;
    elapsed.start();
    while (!condition()) {
        if (elapsed.elapsed() >= timeoutMs)
            return false;
        QTest::qWait(5);
    }
    return true;
}

} // namespace attacks
