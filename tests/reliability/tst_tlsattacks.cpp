#include "managerunderattack.h"
#include "tarnclt.h"
#include "tlslistener.h"
#include "tlsserversocket.h"

#include <QElapsedTimer>
#include <QSslSocket>
#include <QtTest>

#include <memory>
#include <sys/resource.h>
#include <vector>

// Attacks on the manager's connections before and around their sessions, at
// the scale of a real attack, over loopback. Each measures the manager's
// memory and has a newcomer connect and ping while the attackers still hold
// their connections.
namespace {

using Sockets = std::vector<std::unique_ptr<QSslSocket>>;

constexpr qint64 MaxGrowthKb = 64 * 1024;

int CountConnected(const Sockets &sockets)
{
    return int(std::count_if(sockets.begin(), sockets.end(), [](const auto &s) {
        return s->state() == QAbstractSocket::ConnectedState;
    }));
}

bool Settled(const Sockets &sockets)
{
    return std::none_of(sockets.begin(), sockets.end(), [](const auto &s) {
        return s->state() == QAbstractSocket::ConnectingState || s->state() == QAbstractSocket::HostLookupState;
    });
}

} // namespace

class TestTlsAttacks : public QObject
{
    Q_OBJECT

private slots:
    // TARN_ATTACK_SCALE multiplies the attackers, for figures beyond the suite's.
    void initTestCase()
    {
        scale = qMax(1, qEnvironmentVariableIntValue("TARN_ATTACK_SCALE"));
        // Every descriptor the system allows, for this process and the manager.
        rlimit limit{};
        QCOMPARE(getrlimit(RLIMIT_NOFILE, &limit), 0);
        limit.rlim_cur = limit.rlim_max;
        QCOMPARE(setrlimit(RLIMIT_NOFILE, &limit), 0);
        QVERIFY2(limit.rlim_cur > rlim_t(3000 * scale + 1000), "too few descriptors for this scale");
        QVERIFY(m.Start());
        baselineRssKb = m.RssKb();
        baselineFds = m.OpenFds();
    }

    // Many addresses, each within its share, spending the whole budget: the
    // manager holds at most MaxPending of them, the oldest make room, and no
    // TLS state exists for a hello that has not arrived whole.
    void halfOpenHandshakes_data()
    {
        QTest::addColumn<QByteArray>("opening");
        QTest::addColumn<bool>("refused");

        QTest::newRow("silent") << QByteArray() << false;
        QTest::newRow("16 KiB hello announced, not sent") << QByteArray::fromHex("160301400001003ffc") << false;
        QTest::newRow("128 KiB hello announced") << QByteArray::fromHex("160301400001020000") << true;
    }

    void halfOpenHandshakes()
    {
        QFETCH(QByteArray, opening);
        QFETCH(bool, refused);
        const int addresses = 12 * scale;
        constexpr int PerAddress = 250;
        const qint64 before = m.RssKb();

        Sockets attackers;
        for (int i = 0; i < addresses * PerAddress; ++i) {
            attackers.push_back(std::make_unique<QSslSocket>());
            QSslSocket *socket = attackers.back().get();
            socket->bind(QHostAddress(QStringLiteral("127.0.%1.%2").arg(i % addresses / 250).arg(2 + i % addresses % 250)));
            connect(socket, &QAbstractSocket::connected, socket, [socket, opening] { socket->write(opening); });
            socket->connectToHost(QHostAddress::LocalHost, m.port);
        }
        QTRY_VERIFY_WITH_TIMEOUT(Settled(attackers), 30000);
        QTest::qWait(500);
        const qint64 held = m.RssKb() - before;
        if (refused)
            QTRY_COMPARE(CountConnected(attackers), 0);
        else
            QTRY_COMPARE(CountConnected(attackers), TlsListener::MaxPending);
        ExpectNewcomerServed();
        qInfo("%zu connections: %d held, manager grew by %lld KiB", attackers.size(), CountConnected(attackers), held);
        QVERIFY2(held < MaxGrowthKb, qPrintable(QString::number(held)));
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
        const qint64 before = m.RssKb();

        Sockets peers;
        for (int i = 0; i < count; ++i) {
            peers.push_back(std::make_unique<QSslSocket>());
            peers.back()->setPeerVerifyMode(QSslSocket::VerifyNone);
            peers.back()->connectToHostEncrypted(QStringLiteral("127.0.0.1"), m.port);
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
            peak = qMax(peak, m.RssKb());
        }
        qInfo("%d bytes sent per peer, closed after %lld ms, manager grew by %lld KiB at most", sent,
              elapsed.elapsed(), peak - before);
        QCOMPARE(CountConnected(peers), 0);
        QVERIFY2(peak - before < MaxGrowthKb, qPrintable(QString::number(peak - before)));
    }

    // Upgraded peers that never read and send PING frames: the answers wait in
    // the manager until each peer's limit, and then the peer is gone.
    void pingFloodersThatNeverRead()
    {
        const int flooders = 100 * scale;
        constexpr int PingsEach = 40000;
        const qint64 before = m.RssKb();
        const int fdsBefore = m.OpenFds();

        Sockets raw;
        for (int i = 0; i < flooders; ++i) {
            auto socket = m.RawWebSocket(",,,Flooder" + QByteArray::number(i));
            QVERIFY(socket);
            socket->setReadBufferSize(4096);
            raw.push_back(std::move(socket));
        }
        const QByteArray pings = Frame(0x9, QByteArray(125, 'p'), 125).repeated(PingsEach);
        for (const auto &flooder : raw)
            flooder->write(pings);
        qint64 peak = before;
        QTRY_VERIFY_WITH_TIMEOUT((peak = qMax(peak, m.RssKb()), m.OpenFds() <= fdsBefore), 60000);
        qInfo("%d flooders, %d pings each: manager grew by %lld KiB at most", flooders, PingsEach, peak - before);
        ExpectNewcomerServed();
        QVERIFY2(peak - before < MaxGrowthKb, qPrintable(QString::number(peak - before)));
    }

    // Sessions with long names that each ask for the list, which grows with
    // them, and never read: every one holds replies the size of the list,
    // together the square of their number, until the shared pool is spent.
    void slowReadersAskingForTheList()
    {
        const int readers = 300 * scale;
        const qint64 before = m.RssKb();
        const QByteArray name(256, 'n');

        Sockets raw;
        for (int i = 0; i < readers; ++i) {
            auto socket = m.RawWebSocket("," + QUuid::createUuid().toByteArray() + ",," + name);
            QVERIFY(socket);
            socket->setReadBufferSize(4096);
            raw.push_back(std::move(socket));
        }
        const QByteArray requests = Frame(0x1, "Get active clients", 18).repeated(8);
        for (const auto &reader : raw)
            reader->write(requests);
        qint64 peak = before;
        for (int i = 0; i < 40; ++i) {
            QTest::qWait(100);
            peak = qMax(peak, m.RssKb());
        }
        const int dropped = int(m.LogFile().count("did not read what the server sent"));
        qInfo("%d readers, 8 requests each: manager grew by %lld KiB at most, %d dropped", readers, peak - before,
              dropped);
        ExpectNewcomerServed();
        QVERIFY2(peak - before < MaxGrowthKb, qPrintable(QString::number(peak - before)));
    }

    // Whichever way the connections ended, the manager gives their memory back,
    // and the log counts the closes in its summary lines.
    void afterwards()
    {
        QTRY_VERIFY_WITH_TIMEOUT(m.OpenFds() <= baselineFds, 15000);
        QTest::qWait(2000);
        const qint64 rss = m.RssKb();
        qInfo("afterwards: RSS %lld KiB (baseline %lld KiB), %d pings answered, %d late, longest silence %lld ms",
              rss, baselineRssKb, m.pings, m.latePings, m.longestSilenceMs);
        QVERIFY2(rss < baselineRssKb + 16 * 1024, "the manager kept memory after the attacks");
        const QByteArray late = "connections did not complete their handshake within 10 s and were closed.";
        const QByteArray displaced = "unfinished handshakes were closed to make room for newer ones.";
        QTRY_VERIFY_WITH_TIMEOUT(m.LogFile().contains(late) && m.LogFile().contains(displaced), 12000);
        QVERIFY(m.LogFile().count(late) + m.LogFile().count(displaced) < 10);
    }

private:
    void ExpectNewcomerServed()
    {
        QElapsedTimer elapsed;
        elapsed.start();
        TarnClt newcomer;
        ClientRecord rec;
        rec.guestName = QStringLiteral("Newcomer");
        QVERIFY(newcomer.Open(m.url, &rec));
        QCOMPARE(newcomer.Ping(), 0);
        qInfo("newcomer connected and pinged in %lld ms", elapsed.elapsed());
    }

    ManagerUnderAttack m;
    int scale = 1;
    qint64 baselineRssKb = 0;
    int baselineFds = 0;
};

QTEST_MAIN(TestTlsAttacks)
#include "tst_tlsattacks.moc"
