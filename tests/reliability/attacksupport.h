#pragma once

// What the attack tests share: the real manager as a child process, and the
// hand-made frames and connections of a hostile client.
#include "../testsupport.h"

#include <QDir>
#include <QElapsedTimer>
#include <QHostAddress>
#include <QProcess>
#include <QSignalSpy>
#include <QSslSocket>
#include <QTemporaryDir>
#include <QTest>
#include <QUuid>

#include <algorithm>
#include <arpa/inet.h>
#include <memory>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace attacks {

using Sockets = std::vector<std::unique_ptr<QSslSocket>>;

inline int CountConnected(const Sockets &sockets)
{
    return int(std::count_if(sockets.begin(), sockets.end(),
                             [](const auto &s) { return s->state() == QAbstractSocket::ConnectedState; }));
}

// Every descriptor the system allows, for this process and the manager it starts.
inline rlim_t RaiseDescriptorLimit()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return 0;
    limit.rlim_cur = limit.rlim_max;
    return setrlimit(RLIMIT_NOFILE, &limit) == 0 ? limit.rlim_cur : 0;
}

#ifdef TARN_MANAGER_PATH
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
#endif

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

inline QByteArray TextFrame(const QByteArray &text)
{
    return Frame(0x1, text, quint64(text.size()));
}

// A loopback connection to port, from the given address when there is one,
// with that receive buffer when it is not 0; -1 when it failed. A peer with
// a small buffer also gets Ethernet's segment size: over loopback's 64 KiB
// segments the system would queue megabytes for it, where a LAN queues tens
// of kilobytes, and the server would hold nothing itself.
inline int ConnectedDescriptor(quint16 port, const QHostAddress &from, int receiveBuffer)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = htonl(from.isNull() ? INADDR_LOOPBACK : from.toIPv4Address());
    sockaddr_in remote{};
    remote.sin_family = AF_INET;
    remote.sin_port = htons(port);
    remote.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int ethernetSegment = 1460;
    const bool ready = (receiveBuffer == 0
                        || (::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer) == 0
                            && ::setsockopt(fd, IPPROTO_TCP, TCP_MAXSEG, &ethernetSegment, sizeof ethernetSegment) == 0))
        && ::bind(fd, reinterpret_cast<const sockaddr *>(&local), sizeof local) == 0
        && ::connect(fd, reinterpret_cast<const sockaddr *>(&remote), sizeof remote) == 0;
    if (!ready) {
        ::close(fd);
        return -1;
    }
    return fd;
}

// A TLS connection upgraded by hand, from the given loopback address when
// there is one, with a receive buffer of that many bytes when it is not 0
// (set before connecting, so that the window the peer announces is small).
inline std::unique_ptr<QSslSocket> RawWebSocket(quint16 port, const QByteArray &origin,
                                                const QHostAddress &from = QHostAddress(), int receiveBuffer = 0)
{
    auto socket = std::make_unique<QSslSocket>();
    socket->setPeerVerifyMode(QSslSocket::VerifyNone);
    QSignalSpy encrypted(socket.get(), &QSslSocket::encrypted);
    if (from.isNull() && receiveBuffer == 0) {
        socket->connectToHostEncrypted(QStringLiteral("127.0.0.1"), port);
    } else {
        // QSslSocket binds and sets options on a socket of its own, not on
        // the one it connects with: the descriptor is made here instead.
        const int fd = ConnectedDescriptor(port, from, receiveBuffer);
        if (fd < 0 || !socket->setSocketDescriptor(fd))
            return nullptr;
        socket->startClientEncryption();
    }
    if (!encrypted.wait(5000))
        return nullptr;
    socket->write(UpgradeRequest(port, origin));
    QByteArray response;
    WaitFor([&] { return (response += socket->readAll()).contains("\r\n\r\n"); }, 5000);
    return response.startsWith("HTTP/1.1 101") ? std::move(socket) : nullptr;
}

} // namespace attacks
