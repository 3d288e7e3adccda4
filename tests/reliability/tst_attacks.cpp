#include "attacksupport.h"
#include "connectionbudget.h"
#include "tarnclt.h"
#include "tarnsrv.h"
#include "tlslistener.h"
#include "tlsserversocket.h"

#include <QTimer>
#include <QWebSocket>
#include <QtTest>

#include <memory>
#include <sys/resource.h>
#include <vector>

// Runs the real manager (headless, in a private folder) and attacks it from
// this process at the scale of a real attack, over loopback only, while a
// well-behaved client pings it every 100 ms. The attacks measure what the
// manager holds and expect a newcomer still served.
using namespace attacks;
using namespace testsupport;

namespace {

constexpr qint64 MaxGrowthKb = 64 * 1024;

bool Settled(const Sockets &sockets)
{
    return std::none_of(sockets.begin(), sockets.end(), [](const auto &s) {
        return s->state() == QAbstractSocket::ConnectingState || s->state() == QAbstractSocket::HostLookupState;
    });
}

} // namespace

class TestAttacks : public QObject
{
    Q_OBJECT

private slots:
    // TARN_ATTACK_SCALE multiplies the attackers, for figures beyond the suite's.
    void initTestCase()
    {
        scale = qMax(1, qEnvironmentVariableIntValue("TARN_ATTACK_SCALE"));
        QVERIFY2(RaiseDescriptorLimit() > rlim_t(3000 * scale + 1000), "too few descriptors for this scale");

        port = FreePort();
        url = LocalUrl(port);
        // Headless, as a service runs it: on the event loop built for many connections.
        QVERIFY(manager.Start(port));

        goodRecord.sessionUuid = QUuid::createUuid();
        goodRecord.guestName = QStringLiteral("Good");
        QTRY_VERIFY_WITH_TIMEOUT(good.Open(url, &goodRecord), 10000);
        sinceAnswer.start();
        connect(&pinger, &QTimer::timeout, this, &TestAttacks::PingOnce);
        pinger.start(100);
        QTRY_VERIFY(pings >= 3);
        longestSilenceMs = 0;
        baselineRssKb = manager.RssKb();
        baselineFds = manager.OpenFds();
        qInfo("baseline: RSS %lld KiB, %d descriptors", baselineRssKb, baselineFds);
    }

    void cleanupTestCase()
    {
        pinger.stop();
        good.Close();
        manager.Stop();
    }

    // Every attack leaves the well-behaved client answered throughout: a pong may
    // miss its one-second wait, but the server never falls silent for longer than
    // MaxSilenceMs. The floods run on the same thread as the pinging client, so
    // the bound covers the test's own stalls too; the run reports the longest gap.
    void cleanup()
    {
        const int before = pings;
        QTRY_VERIFY(pings >= before + 2);
        QVERIFY2(longestSilenceMs < MaxSilenceMs, qPrintable(QString::number(longestSilenceMs)));
    }

    // Connections that never finish their handshake, from networks of their
    // own: a network keeps at most its share and all together at most the
    // budget, the biggest making room with its oldest, and no TLS state
    // exists for a hello that has not arrived whole. What is not TLS, or
    // announces more than a hello may be, is refused at once.
    void halfOpenHandshakes_data()
    {
        QTest::addColumn<int>("connections");
        QTest::addColumn<int>("addresses");
        QTest::addColumn<QByteArray>("opening");
        QTest::addColumn<int>("held");
        const int share = ConnectionBudget::MaxPendingPerNetwork;
        const int budget = ConnectionBudget::MaxPending;
        const int many = 3000 * scale;
        const int spread = 12 * scale;

        QTest::newRow("silent, one network at its share") << share << 1 << QByteArray() << share;
        QTest::newRow("silent, one network one past its share") << share + 1 << 1 << QByteArray() << share;
        QTest::newRow("silent, at the budget") << budget << 4 << QByteArray() << budget;
        QTest::newRow("silent, one past the budget") << budget + 1 << 4 << QByteArray() << budget;
        QTest::newRow("silent, many") << many << spread << QByteArray() << budget;
        QTest::newRow("16 KiB hello announced, not sent")
            << many << spread << QByteArray::fromHex("160301400001003ffc") << budget;
        QTest::newRow("128 KiB hello announced") << many << spread << QByteArray::fromHex("160301400001020000") << 0;
        QTest::newRow("plain HTTP") << many << spread << QByteArray("GET / HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n") << 0;
    }

    void halfOpenHandshakes()
    {
        QFETCH(int, connections);
        QFETCH(int, addresses);
        QFETCH(QByteArray, opening);
        QFETCH(int, held);
        const qint64 before = manager.RssKb();

        Sockets attackers;
        for (int i = 0; i < connections; ++i) {
            attackers.push_back(std::make_unique<QSslSocket>());
            QSslSocket *socket = attackers.back().get();
            socket->bind(QHostAddress(QStringLiteral("127.1.%1.1").arg(nextNetwork + i % addresses)));
            connect(socket, &QAbstractSocket::connected, socket, [socket, opening] { socket->write(opening); });
            socket->connectToHost(QHostAddress::LocalHost, port);
        }
        nextNetwork += addresses;
        QTRY_VERIFY_WITH_TIMEOUT(Settled(attackers), 30000);
        QTest::qWait(500);
        const qint64 grown = manager.RssKb() - before;
        QTRY_COMPARE(CountConnected(attackers), held);
        QTRY_COMPARE(attackers.front()->state() == QAbstractSocket::ConnectedState, held == connections);
        qInfo("%d connections: %d held, manager grew by %lld KiB", connections, CountConnected(attackers), grown);
        ExpectNewcomerServed();
        QVERIFY2(grown < MaxGrowthKb, qPrintable(QString::number(grown)));
    }

    // Peers past TLS whose request head never ends: one trickles it a byte per
    // record, the other sends an endless one. The first is closed at the
    // deadline, the second at the head's cap, long before it.
    void unfinishedRequestHeads_data()
    {
        QTest::addColumn<int>("bytesPerRecord");
        QTest::addColumn<int>("closedWithinMs");

        QTest::newRow("trickled") << 1 << TlsListener::DeadlineMs + 3000;
        QTest::newRow("endless") << 1024 << TlsListener::DeadlineMs / 2;
    }

    void unfinishedRequestHeads()
    {
        QFETCH(int, bytesPerRecord);
        QFETCH(int, closedWithinMs);
        const int count = 40 * scale;
        const qint64 before = manager.RssKb();

        Sockets peers;
        for (int i = 0; i < count; ++i) {
            peers.push_back(std::make_unique<QSslSocket>());
            peers.back()->setPeerVerifyMode(QSslSocket::VerifyNone);
            peers.back()->connectToHostEncrypted(QStringLiteral("127.0.0.1"), port);
        }
        QTRY_VERIFY(std::all_of(peers.begin(), peers.end(), [](const auto &s) { return s->isEncrypted(); }));
        QElapsedTimer elapsed;
        elapsed.start();
        const QByteArray head = "GET / HTTP/1.1\r\nX-Filler: " + QByteArray(TlsServerSocket::MaxRequestHeadBytes * 2, 'x');
        int sent = 0;
        qint64 peak = before;
        // One write per turn of the event loop is one TLS record.
        while (CountConnected(peers) > 0 && elapsed.elapsed() < closedWithinMs) {
            for (const auto &peer : peers)
                peer->write(head.mid(sent % head.size(), bytesPerRecord));
            sent += bytesPerRecord;
            QTest::qWait(20);
            peak = qMax(peak, manager.RssKb());
        }
        qInfo("%d bytes sent per peer, closed after %lld ms, manager grew by %lld KiB at most", sent,
              elapsed.elapsed(), peak - before);
        QCOMPARE(CountConnected(peers), 0);
        QVERIFY2(peak - before < MaxGrowthKb, qPrintable(QString::number(peak - before)));
    }

    // Names no client offers and frames no client sends, then a ping: binary
    // frames are ignored, and a frame or message past the size limit closes
    // the connection as soon as a header tells, before its payload is there.
    void frames_data()
    {
        QTest::addColumn<QByteArray>("name");
        QTest::addColumn<QByteArray>("frames");
        QTest::addColumn<bool>("answered");
        const int limit = int(TarnSrv::MaxIncomingSize);
        const QByteArray half(limit / 2, 'x');

        QTest::newRow("markup, binary frames") << QByteArray("<script>alert(1)</script><b>x</b>")
                                               << Frame(0x2, "Server ping", 11).repeated(10) << true;
        QTest::newRow("control characters") << QByteArray("ctl\x01\x07\x1b[31m<hr>") << QByteArray() << true;
        QTest::newRow("invalid utf-8") << QByteArray("bad\xff\xfe\xc3<img src=x>") << QByteArray() << true;
        QTest::newRow("frame at the limit") << QByteArray("Big") << Frame(0x1, QByteArray(limit, 'x'), limit) << true;
        QTest::newRow("frame declaring one past the limit")
            << QByteArray("Big") << Frame(0x1, QByteArray(1024, 'x'), limit + 1) << false;
        QTest::newRow("message one past the limit, in two frames")
            << QByteArray("Big") << Frame(0x1, half, limit / 2, false) + Frame(0x0, half + 'x', limit / 2 + 1) << false;
    }

    void frames()
    {
        QFETCH(QByteArray, name);
        QFETCH(QByteArray, frames);
        QFETCH(bool, answered);
        auto socket = RawWebSocket(Origin(name));
        QVERIFY(socket);
        socket->write(frames + Frame(0x1, "Server ping", 11));
        QByteArray reply;
        if (answered)
            QTRY_VERIFY((reply += socket->readAll()).contains("Server pong"));
        else // within Qt's own wait for a payload, which would end it too
            QTRY_COMPARE_WITH_TIMEOUT(socket->state(), QAbstractSocket::UnconnectedState, 3000);
    }

    void rapidConnectClose()
    {
        // Plain connects that close at once, in batches, from a network of
        // their own (they are faster than its rate), then full sessions.
        const int cycles = 10000 * scale;
        for (int done = 0; done < cycles; done += 100) {
            std::vector<std::unique_ptr<QTcpSocket>> batch;
            for (int i = 0; i < 100; ++i) {
                batch.push_back(std::make_unique<QTcpSocket>());
                batch.back()->bind(QHostAddress(QStringLiteral("127.2.0.1")));
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

    // One connection sends 20,000 pings at once: the log keeps its first lines
    // and a count of the rest, and neither it nor the server grows with the rate.
    void pingFlood()
    {
        constexpr int Pings = 20000;
        constexpr qint64 MaxLogGrowth = 64 * 1024;
        constexpr qint64 MaxFloodGrowthKb = 8 * 1024;
        const qint64 rssBefore = manager.RssKb();
        const qint64 logBefore = manager.Log().size();

        auto flood = RawWebSocket(Origin("PingFlood"));
        QVERIFY(flood);
        flood->write(Frame(0x1, "Server ping", 11).repeated(Pings));
        QByteArray replies;
        QTRY_COMPARE_WITH_TIMEOUT(int((replies += flood->readAll()).count("Server pong")), Pings, 60000);
        const qint64 rssAfter = manager.RssKb();
        const qint64 logGrowth = manager.Log().size() - logBefore;
        qInfo("ping flood: log grew %lld bytes, RSS %lld KiB before, %lld KiB after", logGrowth, rssBefore, rssAfter);
        QVERIFY2(logGrowth < MaxLogGrowth, qPrintable(QString::number(logGrowth)));
        QVERIFY2(rssAfter - rssBefore < MaxFloodGrowthKb, qPrintable(QString::number(rssAfter - rssBefore)));

        // Leaving writes out the count of this period.
        flood->abort();
        const QByteArray summaryStart = "Client PingFlood: ";
        QTRY_VERIFY(manager.Log().contains(summaryStart));
        const QByteArray log = manager.Log();
        int answered = log.count("Received ping request from client PingFlood, replied.");
        for (int at = log.indexOf(summaryStart); at >= 0; at = log.indexOf(summaryStart, at + 1))
            answered += log.mid(at + summaryStart.size(), 12).split(' ').value(0).toInt();
        QCOMPARE(answered, Pings);
    }

    // Upgraded peers that never read and send PING frames: each is read from
    // until the answers fill its connection's share, then held there, and
    // goes once it has missed its heartbeats (they cannot come from a peer
    // that is not read from, and it takes nothing).
    void pingFloodersThatNeverRead()
    {
        const int flooders = 100 * scale;
        // Far more than a share of answers (about 500) and the input held past it
        // (about 250), and few enough that this process does not spend seconds
        // encrypting what the manager will never read.
        constexpr int PingsEach = 4000;
        const qint64 before = manager.RssKb();
        const int fdsBefore = manager.OpenFds();

        const Sockets raw = NonReaders(flooders, "Flooder");
        QCOMPARE(int(raw.size()), flooders);
        const QByteArray pings = Frame(0x9, QByteArray(125, 'p'), 125).repeated(PingsEach);
        for (const auto &flooder : raw)
            flooder->write(pings);
        qint64 peak = before;
        ExpectNewcomerServed();
        QElapsedTimer held;
        held.start();
        // The first tick may still see a flooder's connection take bytes, the
        // next ones count its misses: up to five periods, and the flood's own.
        QTRY_VERIFY_WITH_TIMEOUT((peak = qMax(peak, manager.RssKb()), manager.OpenFds() <= fdsBefore),
                                 (Tarn::MaxMissedBeats + 4) * Tarn::HeartBeatIntervalMs);
        qInfo("%d flooders, %d pings each: manager grew by %lld KiB at most, all gone after %lld s", flooders,
              PingsEach, peak - before, held.elapsed() / 1000);
        QVERIFY2(peak - before < MaxGrowthKb, qPrintable(QString::number(peak - before)));
    }

    // Sessions with long names that ask for the list again and again and
    // never read: one alone, among others listed with 4,000-character names,
    // and a crowd whose replies grow with the square of their number. Each is
    // read from no more once a share of answers waits for it, so each holds
    // about that share and a reference to the one shared reply: the manager
    // stays small, nobody has to be dropped, and the list shows them all,
    // their names cut to 256 characters.
    void slowReadersAskingForTheList_data()
    {
        QTest::addColumn<int>("listedIdle");
        QTest::addColumn<int>("readers");
        QTest::addColumn<int>("requests");
        QTest::addColumn<qint64>("maxGrowthKb");

        QTest::newRow("one among 20, 1,500 requests") << 20 << 1 << 1500 << qint64(16 * 1024);
        QTest::newRow("a crowd, 8 requests each") << 0 << 300 * scale << 8 << MaxGrowthKb;
    }

    void slowReadersAskingForTheList()
    {
        QFETCH(int, listedIdle);
        QFETCH(int, readers);
        QFETCH(int, requests);
        QFETCH(qint64, maxGrowthKb);
        const qint64 before = manager.RssKb();
        const int dropsBefore = int(manager.Log().count("did not read what the server sent"));

        std::vector<std::unique_ptr<QWebSocket>> listed;
        for (int i = 0; i < listedIdle; ++i) {
            listed.push_back(std::make_unique<QWebSocket>(QString::fromLatin1(Origin(QByteArray(4000, 'n')))));
            QWebSocket *s = listed.back().get();
            connect(s, &QWebSocket::sslErrors, s, [s] { s->ignoreSslErrors(); });
            s->open(url);
        }
        QTRY_VERIFY(std::all_of(listed.begin(), listed.end(), [](const auto &s) {
            return s->state() == QAbstractSocket::ConnectedState;
        }));

        const Sockets raw = NonReaders(readers, QByteArray(256, 'n'));
        QCOMPARE(int(raw.size()), readers);
        const QByteArray batch = Frame(0x1, "Get active clients", 18).repeated(qMin(requests, 100));
        qint64 peak = before;
        for (int sent = 0; sent < requests && CountConnected(raw) > 0; sent += 100) {
            for (const auto &reader : raw) {
                if (reader->state() == QAbstractSocket::ConnectedState)
                    reader->write(batch);
            }
            QTest::qWait(50);
            peak = qMax(peak, manager.RssKb());
        }
        for (int i = 0; i < 40; ++i) {
            QTest::qWait(100);
            peak = qMax(peak, manager.RssKb());
        }
        ExpectNewcomerServed();

        QString body;
        const QString cut = QString(256, QLatin1Char('n')) + QLatin1Char(',');
        QTRY_VERIFY_WITH_TIMEOUT((good.RequestActiveClients(body), body.count(cut) == listedIdle + readers), 15000);
        const int dropped = int(manager.Log().count("did not read what the server sent")) - dropsBefore;
        QVERIFY(!body.contains(QString(257, QLatin1Char('n'))));
        qInfo("%d readers: manager grew by %lld KiB at most, %d dropped", readers, peak - before, dropped);
        QVERIFY2(peak - before < maxGrowthKb, qPrintable(QString::number(peak - before)));
        QCOMPARE(dropped, 0);
    }

    // Whichever way the connections ended, the manager lists the well-behaved
    // client alone and gives descriptors and memory back; the log shows no
    // guest's markup, and counts the closes before takeover in summary lines.
    void afterwards()
    {
        QString body;
        QTRY_VERIFY_WITH_TIMEOUT((good.RequestActiveClients(body),
                                  body == QStringLiteral("Good,%1,").arg(goodRecord.sessionUuid.toString())), 15000);
        QTRY_VERIFY_WITH_TIMEOUT(manager.OpenFds() <= baselineFds, 15000);
        QTest::qWait(2000);
        const qint64 rss = manager.RssKb();
        qInfo("afterwards: RSS %lld KiB (baseline %lld KiB), %d descriptors (baseline %d), %d pings answered, "
              "%d late, longest silence %lld ms",
              rss, baselineRssKb, manager.OpenFds(), baselineFds, pings, latePings, longestSilenceMs);
        QVERIFY2(rss < baselineRssKb + 16 * 1024, "the manager kept memory after the attacks");

        const QByteArray late = "connections did not complete their handshake within 10 s and were closed.";
        const QByteArray displaced = "unfinished handshakes were closed to make room for newer ones.";
        QTRY_VERIFY_WITH_TIMEOUT(manager.Log().contains(late) && manager.Log().contains(displaced), 12000);
        const QByteArray html = manager.Log();
        QVERIFY(html.count(late) + html.count(displaced) < 10);
        for (const char *markup : {"<script", "<b>", "<hr>", "<img"})
            QVERIFY2(!html.contains(markup), markup);
        // Once: the binary frames before that ping went unanswered.
        QCOMPARE(html.count("Received ping request from client "
                            "&lt;script&gt;alert(1)&lt;/script&gt;&lt;b&gt;x&lt;/b&gt;, replied."), 1);
    }

private:
    void PingOnce()
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

    // A TLS connection upgraded by hand, for frames no well-made client sends.
    std::unique_ptr<QSslSocket> RawWebSocket(const QByteArray &origin) const
    {
        return attacks::RawWebSocket(port, origin);
    }

    // Upgraded peers that read no more than a small buffer; fewer when one failed.
    Sockets NonReaders(int count, const QByteArray &name) const
    {
        Sockets raw;
        for (int i = 0; i < count; ++i) {
            auto socket = RawWebSocket(Origin(name + QByteArray::number(i)));
            if (!socket)
                break;
            socket->setReadBufferSize(4096);
            raw.push_back(std::move(socket));
        }
        return raw;
    }

    void ExpectNewcomerServed()
    {
        QElapsedTimer elapsed;
        elapsed.start();
        TarnClt newcomer;
        ClientRecord rec;
        rec.guestName = QStringLiteral("Newcomer");
        QVERIFY(newcomer.Open(url, &rec));
        QCOMPARE(newcomer.Ping(), 0);
        qInfo("newcomer connected and pinged in %lld ms", elapsed.elapsed());
    }

    Manager manager;
    quint16 port = 0;
    QUrl url;
    TarnClt good;
    ClientRecord goodRecord;
    QTimer pinger;
    QElapsedTimer sinceAnswer;
    bool pinging = false;
    int pings = 0;
    int latePings = 0;
    qint64 longestSilenceMs = 0;
    int scale = 1;
    qint64 baselineRssKb = 0;
    int baselineFds = 0;
    // The next 127.1.x.0/24 an attack may use, fresh for each.
    int nextNetwork = 0;
    static constexpr qint64 MaxSilenceMs = 10000;
};

QTEST_MAIN(TestAttacks)
#include "tst_attacks.moc"
