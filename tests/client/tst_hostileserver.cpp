#include "../testsupport.h"
#include "tarnclt.h"
#include "tlsidentity.h"

#include <QCryptographicHash>
#include <QProcess>
#include <QRegularExpression>
#include <QSslSocket>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QtTest>

using namespace testsupport;

namespace {

enum class Hostility { EndlessHeaderLines, NoLineEnd, SilentAfterAccept, PingFlood };

// Queued per connection and refilled as it drains: the flood never ends, and
// never grows this process.
constexpr qint64 Backlog = 64 * 1024;

// A TLS server on 127.0.0.1 that feeds a client what a hostile host would.
class HostileServer : public QTcpServer
{
public:
    HostileServer(Hostility mode, const TlsIdentity &identity)
        : mode(mode), identity(identity)
    {
    }

protected:
    void incomingConnection(qintptr descriptor) override
    {
        if (mode == Hostility::SilentAfterAccept) {
            // Holds the connection and answers nothing, not even the TLS handshake.
            (new QTcpSocket(this))->setSocketDescriptor(descriptor);
            return;
        }
        auto *socket = new QSslSocket(this);
        socket->setSocketDescriptor(descriptor);
        socket->setLocalCertificate(identity.certificate);
        socket->setPrivateKey(identity.key);
        socket->setPeerVerifyMode(QSslSocket::VerifyNone);
        connect(socket, &QSslSocket::encrypted, this, [this, socket] {
            if (mode == Hostility::PingFlood)
                connect(socket, &QSslSocket::readyRead, this, [this, socket] { Upgrade(socket); });
            else
                Flood(socket, mode == Hostility::EndlessHeaderLines ? "HTTP/1.1 101 Switching Protocols\r\n" : "");
        });
        socket->startServerEncryption();
    }

private:
    // A real upgrade, then, once the client's first message is in, pings
    // without reading another byte.
    void Upgrade(QSslSocket *socket)
    {
        if (socket->property("upgraded").toBool()) {
            disconnect(socket, &QSslSocket::readyRead, this, nullptr);
            socket->setReadBufferSize(1); // already holds more: nothing is read from here on
            Flood(socket, QByteArray());
            return;
        }
        if (!socket->peek(socket->bytesAvailable()).contains("\r\n\r\n"))
            return;
        const QByteArray request = socket->readAll();
        const QRegularExpression keyLine(QStringLiteral("Sec-WebSocket-Key: *([^\r]+)"),
                                         QRegularExpression::CaseInsensitiveOption);
        const QByteArray key = keyLine.match(QString::fromLatin1(request)).captured(1).toLatin1();
        const QByteArray accept =
            QCryptographicHash::hash(key + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11", QCryptographicHash::Sha1).toBase64();
        socket->write("HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                      "Sec-WebSocket-Accept: " + accept + "\r\n\r\n");
        socket->setProperty("upgraded", true);
    }

    void Flood(QSslSocket *socket, const QByteArray &first)
    {
        socket->write(first);
        connect(socket, &QSslSocket::encryptedBytesWritten, this, [this, socket] { Feed(socket); });
        Feed(socket);
    }

    void Feed(QSslSocket *socket) const
    {
        static const QByteArray headerLines = QByteArray("X-Padding: " + QByteArray(50, 'h') + "\r\n").repeated(64);
        static const QByteArray noLineEnd(4096, 'x');
        static const QByteArray pings = (QByteArray("\x89\x7d", 2) + QByteArray(125, 'p')).repeated(32);
        const QByteArray &chunk = mode == Hostility::EndlessHeaderLines ? headerLines
                                  : mode == Hostility::NoLineEnd       ? noLineEnd
                                                                       : pings;
        while (socket->state() == QAbstractSocket::ConnectedState
               && socket->bytesToWrite() + socket->encryptedBytesToWrite() < Backlog)
            socket->write(chunk);
    }

    const Hostility mode;
    const TlsIdentity &identity;
};

// The process's peak resident set in KiB, -1 once it is gone.
qint64 PeakRssKiB(qint64 pid)
{
    QFile status(QStringLiteral("/proc/%1/status").arg(pid));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    const QRegularExpression hwm(QStringLiteral("^VmHWM:\\s*(\\d+) kB$"), QRegularExpression::MultilineOption);
    const QRegularExpressionMatch match = hwm.match(QString::fromLatin1(status.readAll()));
    return match.hasMatch() ? match.captured(1).toLongLong() : -1;
}

} // namespace

Q_DECLARE_METATYPE(Hostility)

// The real `tarn` against servers that try to exhaust it: each ends it within
// its bound, with a reason and exit code 1, in bounded memory.
class TestHostileServer : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QVERIFY(keys.isValid() && config.isValid());
        QString error;
        identity = TlsIdentity::LoadOrCreate(keys.path(), &error);
        QVERIFY2(!identity.isNull(), qPrintable(error));
    }

    void boundedAgainst_data()
    {
        QTest::addColumn<Hostility>("mode");
        QTest::addColumn<QString>("command");
        QTest::addColumn<QString>("err"); // regular expression; URL is the server's
        QTest::addColumn<int>("minMs");
        QTest::addColumn<int>("maxMs");

        const QString cannot = QStringLiteral("tarn: cannot connect to URL: ");
        const QString tooLong = cannot + "the upgrade reply exceeds 16384 bytes\n";
        QTest::newRow("endless header lines") << Hostility::EndlessHeaderLines << "ping" << tooLong << 0 << 2000;
        QTest::newRow("bytes with no line end") << Hostility::NoLineEnd << "ping" << tooLong << 0 << 2000;
        QTest::newRow("silent after accept") << Hostility::SilentAfterAccept << "ping"
                                             << cannot + "no connection within 3000 ms\n"
                                             << TarnClt::ConnectTimeoutMs << TarnClt::ConnectTimeoutMs + 2000;
        // Found by a check on a delivery, or at the latest by the next poll's request.
        QTest::newRow("ping flood, never reading")
            << Hostility::PingFlood << "watch"
            << "tarn: connection to URL lost: the server does not read: over 1048576 bytes unsent\n" << 0 << 5000;
    }

    void boundedAgainst()
    {
        QFETCH(Hostility, mode);
        QFETCH(QString, command);
        QFETCH(QString, err);
        QFETCH(int, minMs);
        QFETCH(int, maxMs);

        HostileServer server(mode, identity);
        QVERIFY(server.listen(QHostAddress::LocalHost, FreePort()));
        const QString url = LocalUrl(server.serverPort()).toString();

        QProcess tool;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("XDG_CONFIG_HOME"), config.path());
        tool.setProcessEnvironment(env);
        auto stop = qScopeGuard([&tool] {
            tool.kill();
            tool.waitForFinished();
        });
        QElapsedTimer elapsed;
        elapsed.start();
        tool.start(QStringLiteral(TARN_TOOL_PATH), {command, url, QStringLiteral("--insecure")});
        QVERIFY(tool.waitForStarted());
        const qint64 pid = tool.processId();
        qint64 peakKiB = 0;
        // The server answers through this event loop; the peak is sampled as it waits.
        const QDeadlineTimer deadline(maxMs + 5000);
        while (tool.state() != QProcess::NotRunning && !deadline.hasExpired()) {
            peakKiB = qMax(peakKiB, PeakRssKiB(pid));
            QTest::qWait(2);
        }
        const qint64 ms = elapsed.elapsed();
        const QString stdErr = QString::fromUtf8(tool.readAllStandardError());
        qInfo("%s: ended after %lld ms, peak RSS %lld KiB, %s", QTest::currentDataTag(), ms, peakKiB,
              qPrintable(stdErr.section(QLatin1Char('\n'), -2, -2)));
        QCOMPARE(tool.state(), QProcess::NotRunning);
        const QString expected = QStringLiteral("tarn: --insecure: [^\n]*\n") + err.replace("URL", QRegularExpression::escape(url));
        QVERIFY2(QRegularExpression(QRegularExpression::anchoredPattern(expected)).match(stdErr).hasMatch(),
                 qPrintable(stdErr));
        QCOMPARE(tool.exitStatus(), QProcess::NormalExit);
        QCOMPARE(tool.exitCode(), 1);
        QVERIFY2(ms >= minMs && ms <= maxMs, qPrintable(QString::number(ms)));
        QVERIFY2(peakKiB > 0 && peakKiB < TARN_MEMORY_FACTOR * 64 * 1024, qPrintable(QString::number(peakKiB)));
    }

private:
    QTemporaryDir keys;
    QTemporaryDir config;
    TlsIdentity identity;
};

QTEST_MAIN(TestHostileServer)
#include "tst_hostileserver.moc"
