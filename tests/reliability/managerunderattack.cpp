#include "managerunderattack.h"

#include "../testsupport.h"

#include <QDir>
#include <QSignalSpy>
#include <QtTest>

using namespace testsupport;

ManagerUnderAttack::~ManagerUnderAttack()
{
    pinger.stop();
    good.Close();
    manager.terminate();
    manager.waitForFinished(5000);
}

bool ManagerUnderAttack::Start()
{
    port = FreePort();
    url = LocalUrl(port);
    const QString program = dir.filePath(QStringLiteral("TarnSrv"));
    if (!QFile::copy(QStringLiteral(TARN_MANAGER_PATH), program)
        || !WriteFile(dir.filePath(QStringLiteral("TarnSrv.cfg")),
                      QStringLiteral("PortNr = %1\nLoggingFolder = %2\n").arg(port).arg(dir.path()).toUtf8()))
        return false;

    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    env.insert(QStringLiteral("XDG_CONFIG_HOME"), dir.filePath(QStringLiteral("config")));
    env.insert(QStringLiteral("TARN_INSTANCE_LOCK"), dir.filePath(QStringLiteral("instance.lock")));
    manager.setProcessEnvironment(env);
    manager.start(program, {});
    if (!manager.waitForStarted())
        return false;

    goodRecord.sessionUuid = QUuid::createUuid();
    goodRecord.guestName = QStringLiteral("Good");
    QElapsedTimer waited;
    waited.start();
    while (!good.Open(url, &goodRecord)) {
        if (waited.elapsed() > 10000)
            return false;
        QTest::qWait(100);
    }
    sinceAnswer.start();
    connect(&pinger, &QTimer::timeout, this, &ManagerUnderAttack::PingOnce);
    pinger.start(100);
    return QTest::qWaitFor([this] { return pings >= 3; }) && (longestSilenceMs = 0, true);
}

qint64 ManagerUnderAttack::RssKb() const
{
    const QByteArray status = FileBytes(QStringLiteral("/proc/%1/status").arg(manager.processId()));
    const int at = status.indexOf("\nVmRSS:");
    return at < 0 ? -1 : status.mid(at + 7, 20).simplified().split(' ').value(0).toLongLong();
}

int ManagerUnderAttack::OpenFds() const
{
    const QDir fds(QStringLiteral("/proc/%1/fd").arg(manager.processId()));
    return int(fds.entryList(QDir::NoDotAndDotDot | QDir::System).size());
}

QByteArray ManagerUnderAttack::LogFile() const
{
    return FileBytes(dir.filePath(QStringLiteral("TarnSrvSvc.html")));
}

void ManagerUnderAttack::PingOnce()
{
    if (pinging)
        return;
    pinging = true;
    if (good.Ping() == 0) {
        ++pings;
        longestSilenceMs = qMax(longestSilenceMs, sinceAnswer.restart());
    } else {
        ++latePings;
    }
    pinging = false;
}

std::unique_ptr<QSslSocket> ManagerUnderAttack::RawWebSocket(const QByteArray &origin) const
{
    auto socket = std::make_unique<QSslSocket>();
    socket->setPeerVerifyMode(QSslSocket::VerifyNone);
    socket->connectToHostEncrypted(QStringLiteral("127.0.0.1"), port);
    QSignalSpy encrypted(socket.get(), &QSslSocket::encrypted);
    if (!encrypted.wait(5000))
        return nullptr;
    socket->write(UpgradeRequest(port, origin));
    QByteArray response;
    QElapsedTimer elapsed;
    elapsed.start();
    while (!response.contains("\r\n\r\n") && elapsed.elapsed() < 5000) {
        QTest::qWait(10);
        response += socket->readAll();
    }
    return response.startsWith("HTTP/1.1 101") ? std::move(socket) : nullptr;
}

QByteArray UpgradeRequest(quint16 port, const QByteArray &origin)
{
    return "GET / HTTP/1.1\r\nHost: 127.0.0.1:" + QByteArray::number(port)
           + "\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
             "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n"
             "Origin: " + origin + "\r\n\r\n";
}

QByteArray Frame(quint8 opcode, const QByteArray &payload, quint64 declared)
{
    QByteArray frame;
    frame.append(char(0x80 | opcode));
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
