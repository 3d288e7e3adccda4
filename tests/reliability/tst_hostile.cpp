#include "../testsupport.h"
#include "managerunderattack.h"
#include "tarnclt.h"
#include "tlslistener.h"

#include <QDir>
#include <QProcess>
#include <QRandomGenerator>
#include <QSslSocket>
#include <QTemporaryDir>
#include <QTimer>
#include <QWebSocket>
#include <QtTest>
#include <memory>
#include <sys/resource.h>
#include <vector>

// Runs the real manager (offscreen) and attacks its server from this process,
// over loopback only, while a well-behaved client pings it every 100 ms.
using namespace testsupport;

namespace {

// A WebSocket that accepts the server's self-signed certificate, opening.
std::unique_ptr<QWebSocket> OpenSocket(const QString &origin, const QUrl &url)
{
    auto socket = std::make_unique<QWebSocket>(origin, QWebSocketProtocol::Version13);
    QWebSocket *s = socket.get();
    QObject::connect(s, &QWebSocket::sslErrors, s, [s] { s->ignoreSslErrors(); });
    s->open(url);
    return socket;
}

} // namespace

class TestHostile : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        rlimit limit{8192, 8192};
        setrlimit(RLIMIT_NOFILE, &limit);
        cycles = qEnvironmentVariableIntValue("TARN_HOSTILE_CYCLES");
        if (cycles <= 0)
            cycles = 10000;
        QVERIFY(m.Start());
        port = m.port;
        url = m.url;
        baselineRssKb = m.RssKb();
        baselineFds = m.OpenFds();
        qInfo("baseline: RSS %lld KiB, %d descriptors", baselineRssKb, baselineFds);
    }

    // Every attack leaves the well-behaved client answered throughout: a pong may
    // miss its one-second wait, but the server never falls silent for longer than
    // MaxSilenceMs. The floods run on the same thread as the pinging client, so
    // the bound covers the test's own stalls too; the run reports the longest gap.
    void cleanup()
    {
        const int before = m.pings;
        QTRY_VERIFY(m.pings >= before + 2);
        QVERIFY2(m.longestSilenceMs < MaxSilenceMs, qPrintable(QString::number(m.longestSilenceMs)));
    }

    void plainHttpAndRandomBytes()
    {
        QTcpSocket http, noise;
        http.connectToHost(QHostAddress::LocalHost, port);
        noise.connectToHost(QHostAddress::LocalHost, port);
        QTRY_COMPARE(http.state(), QAbstractSocket::ConnectedState);
        QTRY_COMPARE(noise.state(), QAbstractSocket::ConnectedState);
        http.write("GET / HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
        QByteArray bytes(64 * 1024, Qt::Uninitialized);
        QRandomGenerator::global()->fillRange(reinterpret_cast<quint32 *>(bytes.data()), bytes.size() / 4);
        noise.write(bytes);
        // Neither is a TLS client: the server gives both up.
        QTRY_COMPARE_WITH_TIMEOUT(http.state(), QAbstractSocket::UnconnectedState, 10000);
        QTRY_COMPARE_WITH_TIMEOUT(noise.state(), QAbstractSocket::UnconnectedState, 10000);
    }

    void silentHandshakes()
    {
        // From one address: a TLS hello cut short, an upgrade cut short, and more
        // connections that never speak than its share. It keeps the newest.
        QTcpSocket hello;
        hello.connectToHost(QHostAddress::LocalHost, port);
        QTRY_COMPARE(hello.state(), QAbstractSocket::ConnectedState);
        hello.write(QByteArray::fromHex("160301020001000200"));

        QSslSocket upgrade;
        upgrade.setPeerVerifyMode(QSslSocket::VerifyNone);
        upgrade.connectToHostEncrypted(QStringLiteral("127.0.0.1"), port);
        QTRY_VERIFY(upgrade.isEncrypted());
        upgrade.write("GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: webs");

        std::vector<std::unique_ptr<QTcpSocket>> silent;
        for (int i = 0; i < TlsListener::MaxPendingPerAddress + 100; ++i) {
            silent.push_back(std::make_unique<QTcpSocket>());
            silent.back()->connectToHost(QHostAddress::LocalHost, port);
        }
        const auto held = [&silent] {
            return std::count_if(silent.begin(), silent.end(), [](const auto &s) {
                return s->state() == QAbstractSocket::ConnectedState;
            });
        };
        QTRY_COMPARE(held(), TlsListener::MaxPendingPerAddress);
        QTRY_COMPARE(hello.state(), QAbstractSocket::UnconnectedState);
        QTRY_COMPARE(upgrade.state(), QAbstractSocket::UnconnectedState);
        qInfo("with %zu stalled handshakes: %d descriptors", silent.size(), m.OpenFds());
        // A newcomer still gets in while they stall.
        TarnClt newcomer;
        ClientRecord rec;
        rec.guestName = QStringLiteral("Newcomer");
        QVERIFY(newcomer.Open(url, &rec));
        QCOMPARE(newcomer.Ping(), 0);
    }

    void oversizedFrames_data()
    {
        QTest::addColumn<QByteArray>("frame");

        QTest::newRow("100 MiB declared") << Frame(0x1, QByteArray(1024, 'x'), 100ull << 20);
        QTest::newRow("1 MiB text") << Frame(0x1, QByteArray(1 << 20, 'x'), 1 << 20);
    }

    void oversizedFrames()
    {
        QFETCH(QByteArray, frame);
        auto socket = m.RawWebSocket("{00000000-0000-0000-0000-000000000001},{00000000-0000-0000-0000-000000000002},,Big");
        QVERIFY(socket);
        socket->write(frame);
        QTRY_COMPARE_WITH_TIMEOUT(socket->state(), QAbstractSocket::UnconnectedState, 10000);
    }

    void binaryFramesIgnored()
    {
        auto socket = OpenSocket(QStringLiteral(",,,Bin"), url);
        QSignalSpy text(socket.get(), &QWebSocket::textMessageReceived);
        QTRY_COMPARE(socket->state(), QAbstractSocket::ConnectedState);
        for (int i = 0; i < 10; ++i)
            socket->sendBinaryMessage(QByteArrayLiteral("Server ping"));
        socket->sendTextMessage(QStringLiteral("Server ping"));
        QVERIFY(text.wait(5000));
        QTest::qWait(200);
        QCOMPARE(text.count(), 1);
        QCOMPARE(socket->state(), QAbstractSocket::ConnectedState);
    }

    void hostileNames_data()
    {
        QTest::addColumn<QByteArray>("name");

        QTest::newRow("markup") << QByteArray("<script>alert(1)</script><b>x</b>");
        QTest::newRow("quotes") << QByteArray("\"Ann\" 'Lee' &amp;");
        QTest::newRow("comma") << QByteArray("<i>cut</i>,<u>rest</u>");
        QTest::newRow("control characters") << QByteArray("ctl\x01\x07\x1b[31m<hr>");
        QTest::newRow("invalid utf-8") << QByteArray("bad\xff\xfe\xc3<img src=x>");
    }

    void hostileNames()
    {
        QFETCH(QByteArray, name);
        auto socket = m.RawWebSocket("{00000000-0000-0000-0000-000000000001},{00000000-0000-0000-0000-000000000003},," + name);
        QVERIFY(socket);
        socket->write(Frame(0x1, "Server ping", 11));
        QByteArray reply;
        QTRY_VERIFY((reply += socket->readAll()).contains("Server pong"));
    }

    void rapidConnectClose()
    {
        // Plain connects that close at once, in batches, then full sessions.
        for (int done = 0; done < cycles; done += 100) {
            std::vector<std::unique_ptr<QTcpSocket>> batch;
            for (int i = 0; i < 100; ++i) {
                batch.push_back(std::make_unique<QTcpSocket>());
                batch.back()->connectToHost(QHostAddress::LocalHost, port);
            }
            QTRY_VERIFY(std::all_of(batch.begin(), batch.end(), [](const auto &s) {
                return s->state() != QAbstractSocket::ConnectingState && s->state() != QAbstractSocket::HostLookupState;
            }));
        }
        for (int i = 0; i < cycles / 10; ++i) {
            TarnClt client;
            ClientRecord rec;
            rec.guestName = QStringLiteral("Cycle");
            QVERIFY(client.Open(url, &rec));
            client.Close();
        }
    }

    // Floods that make the server write: what waits unsent, and the log.
    // Twenty listed clients with long names, and one that asks for the list again
    // and again without ever reading the replies.
    void slowReaderFloodsActiveClients()
    {
        constexpr qint64 MaxGrowthKb = 16 * 1024;
        const qint64 before = m.RssKb();

        std::vector<std::unique_ptr<QWebSocket>> listed;
        for (int i = 0; i < 20; ++i)
            listed.push_back(OpenSocket(QStringLiteral(",%1,,").arg(QUuid::createUuid().toString())
                                            + QString(4000, QLatin1Char('n')), url));
        QTRY_VERIFY(std::all_of(listed.begin(), listed.end(), [](const auto &s) {
            return s->state() == QAbstractSocket::ConnectedState;
        }));

        const QUuid slowSession = QUuid::createUuid();
        auto slow = m.RawWebSocket("," + slowSession.toByteArray() + ",,SlowReader");
        QVERIFY(slow);
        slow->setReadBufferSize(4096);
        QByteArray batch;
        for (int i = 0; i < 100; ++i)
            batch += Frame(0x1, "Get active clients", 18);
        qint64 peak = before;
        int sent = 0;
        for (; sent < 1500 && slow->state() == QAbstractSocket::ConnectedState; sent += 100) {
            slow->write(batch);
            QTest::qWait(50);
            peak = qMax(peak, m.RssKb());
        }
        qInfo("slow reader: %d requests sent, RSS %lld KiB before, peak %lld KiB", sent, before, peak);

        // The server drops the reader, says so once, and lists the others with their names cut.
        QString body;
        QTRY_VERIFY_WITH_TIMEOUT((m.good.RequestActiveClients(body), !body.contains(slowSession.toString())), 15000);
        QCOMPARE(body.count(QString(256, QLatin1Char('n')) + QLatin1Char(',')), 20);
        QVERIFY(!body.contains(QString(257, QLatin1Char('n'))));
        const QByteArray warning = "Client SlowReader did not read what the server sent and was disconnected.";
        QTRY_COMPARE(m.LogFile().count(warning), 1);
        QVERIFY2(peak - before < MaxGrowthKb, qPrintable(QString::number(peak - before)));
    }

    // One connection sends 20,000 m.pings at once: the log keeps its first lines
    // and a count of the rest, and neither it nor the server grows with the rate.
    void pingFlood()
    {
        constexpr int Pings = 20000;
        constexpr qint64 MaxLogGrowth = 64 * 1024;
        constexpr qint64 MaxGrowthKb = 8 * 1024;
        const qint64 rssBefore = m.RssKb();
        const qint64 logBefore = m.LogFile().size();

        auto flood = m.RawWebSocket("{00000000-0000-0000-0000-000000000001},{00000000-0000-0000-0000-000000000004},,PingFlood");
        QVERIFY(flood);
        const QByteArray ping = Frame(0x1, "Server ping", 11);
        flood->write(ping.repeated(Pings));
        QByteArray replies;
        QTRY_COMPARE_WITH_TIMEOUT(int((replies += flood->readAll()).count("Server pong")), Pings, 60000);
        const qint64 rssAfter = m.RssKb();
        const qint64 logGrowth = m.LogFile().size() - logBefore;
        qInfo("ping flood: log grew %lld bytes, RSS %lld KiB before, %lld KiB after", logGrowth, rssBefore, rssAfter);
        QVERIFY2(logGrowth < MaxLogGrowth, qPrintable(QString::number(logGrowth)));
        QVERIFY2(rssAfter - rssBefore < MaxGrowthKb, qPrintable(QString::number(rssAfter - rssBefore)));

        // Leaving writes out the count of this period.
        flood->abort();
        const QByteArray summaryStart = "Client PingFlood: ";
        QTRY_VERIFY(m.LogFile().contains(summaryStart));
        const QByteArray log = m.LogFile();
        int answered = log.count("Received ping request from client PingFlood, replied.");
        for (int at = log.indexOf(summaryStart); at >= 0; at = log.indexOf(summaryStart, at + 1))
            answered += log.mid(at + summaryStart.size(), 12).split(' ').value(0).toInt();
        QCOMPARE(answered, Pings);
    }

    void afterwardsNothingLeft()
    {
        QString body;
        QTRY_VERIFY_WITH_TIMEOUT((m.good.RequestActiveClients(body), body == QStringLiteral("Good,%1,")
                                  .arg(m.goodRecord.sessionUuid.toString())), 15000);
        QTRY_VERIFY_WITH_TIMEOUT(m.OpenFds() <= baselineFds, 15000);
        const qint64 rss = m.RssKb();
        qInfo("afterwards: RSS %lld KiB (baseline %lld KiB), %d descriptors (baseline %d), %d pings answered, "
              "%d late, longest silence %lld ms",
              rss, baselineRssKb, m.OpenFds(), baselineFds, m.pings, m.latePings, m.longestSilenceMs);
        QVERIFY2(rss < baselineRssKb + 32 * 1024, "the server kept memory after the attacks");

        const QByteArray html = m.LogFile();
        for (const char *markup : {"<script", "<b>", "<i>", "<hr>", "<img", "<u>"})
            QVERIFY2(!html.contains(markup), markup);
        QVERIFY(html.contains("Received ping request from client &lt;script&gt;alert(1)&lt;/script&gt;&lt;b&gt;x&lt;/b&gt;, replied."));
    }

private:
    ManagerUnderAttack m;
    quint16 port = 0;
    QUrl url;
    qint64 baselineRssKb = 0;
    int baselineFds = 0;
    int cycles = 10000;
    static constexpr qint64 MaxSilenceMs = 10000;
};

QTEST_MAIN(TestHostile)
#include "tst_hostile.moc"
