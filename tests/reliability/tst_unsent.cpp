#include "attacksupport.h"
#include "tarnclt.h"
#include "tarnsrv.h"
#include "unsentpool.h"

#include <QScopeGuard>
#include <QTimer>

#include <vector>

// A hostile peer's attack on what the manager holds unsent: a thousand
// sessions with 256-character names make the active-clients reply half a
// megabyte, then ninety-odd connections that never read ask for it. Clients
// that read, one connected before the attack and one arriving during it, get
// the list every time; only the non-readers may be dropped, and the manager
// holds about a share per non-reader and the pool, not a list per request.
using namespace testsupport;
using namespace attacks;

namespace {

using Sockets = std::vector<std::unique_ptr<QSslSocket>>;

constexpr int ListedSessions = 1000;
constexpr int SessionsPerAddress = 250;
constexpr int NonReaders = 128;
// Each round, every non-reader asks once more: one request each, so that
// together they fill the pool rather than each its own limit.
constexpr int Rounds = 3;
constexpr int AnswerWithinMs = 2000;
// The pool, and what each non-reader holds of its own with its TLS state.
constexpr qint64 MaxGrowthKb = UnsentPool::DefaultCapacity / 1024 + NonReaders * 128;
const QByteArray Request = TextFrame("Get active clients");

// 127.0.0.2 and up, SessionsPerAddress to each.
QHostAddress SourceAddress(int index, int first)
{
    return QHostAddress(QStringLiteral("127.0.0.%1").arg(first + index / SessionsPerAddress));
}

int Connected(const Sockets &sockets)
{
    return int(std::count_if(sockets.begin(), sockets.end(),
                             [](const auto &s) { return s->state() == QAbstractSocket::ConnectedState; }));
}

} // namespace

class TestUnsent : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
        QSKIP("Built on Qt 6, TarnClt gets no answer to a list of 550 KB even from an idle manager; "
              "see docs/RELIABILITY.md, Not covered");
#endif
        QVERIFY2(RaiseDescriptorLimit() > rlim_t(3 * ListedSessions), "too few descriptors");
        port = FreePort();
        QVERIFY(manager.Start(port));
        QTRY_VERIFY_WITH_TIMEOUT(ListenerUp(), 10000);
        // Two bytes in UTF-8 each: 1,000 entries make a reply of some 550 KB.
        QByteArray name;
        for (int i = 0; i < 256; ++i)
            name += "\xc3\xa9";
        for (int i = 0; i < ListedSessions; ++i) {
            AddSession(listed, Origin(name), SourceAddress(i, 2));
            QVERIFY2(listed.back(), qPrintable(QString::number(i)));
        }
        // The listed sessions read, and beat, as clients do.
        connect(&beats, &QTimer::timeout, this, [this] {
            for (Sockets *group : {&listed, &churn})
                for (const auto &session : *group)
                    session->write(TextFrame("Heart Beat"));
        });
        beats.start(Tarn::HeartBeatIntervalMs / 4);
    }

    void cleanupTestCase()
    {
        beats.stop();
        manager.Stop();
    }

    // One list for all: every non-reader holds the same buffer. A new list for
    // each: a session arrives before each request, so every non-reader holds
    // a list of its own, together more than the pool unless the system takes
    // them (Linux lets a loopback connection queue a few megabytes).
    void listServedWhileNonReadersHoldIt_data()
    {
        QTest::addColumn<bool>("newListEach");

        QTest::newRow("one list for all") << false;
        QTest::newRow("a new list for each") << true;
    }

    void listServedWhileNonReadersHoldIt()
    {
        QFETCH(bool, newListEach);
        const auto closeChurn = qScopeGuard([this] { churn.clear(); });
        TarnClt victim;
        ClientRecord victimRecord;
        victimRecord.guestName = QStringLiteral("Victim");
        QVERIFY(victim.Open(LocalUrl(port), &victimRecord));
        const int fdsBefore = manager.OpenFds();
        QVERIFY(AnsweredInTime(victim));
        const qint64 before = manager.RssKb();
        const int dropsBefore = int(manager.Log().count("did not read what the server sent"));

        // All connected first: each is listed, and would change the list.
        Sockets nonReaders;
        for (int i = 0; i < NonReaders; ++i) {
            auto peer = RawWebSocket(port, Origin("NonReader" + QByteArray::number(i)), SourceAddress(i, 10), 4096);
            QVERIFY(peer);
            peer->setReadBufferSize(4096);
            nonReaders.push_back(std::move(peer));
        }
        for (int i = 0; i < NonReaders; ++i) {
            if (newListEach)
                AddSession(churn, Origin("Churn"), SourceAddress(i, 20));
            nonReaders[size_t(i)]->write(Request);
        }
        qint64 peak = manager.RssKb();
        for (int round = 0; round < Rounds; ++round) {
            for (const auto &peer : nonReaders)
                peer->write(Request);
            TarnClt newcomer;
            ClientRecord newcomerRecord;
            newcomerRecord.guestName = QStringLiteral("Newcomer");
            QVERIFY(newcomer.Open(LocalUrl(port), &newcomerRecord));
            QVERIFY2(AnsweredInTime(victim), "the session connected before the attack");
            QVERIFY2(AnsweredInTime(newcomer), "the session arriving during the attack");
            peak = qMax(peak, manager.RssKb());
        }

        const QByteArray log = manager.Log();
        const int dropped = int(log.count("did not read what the server sent")) - dropsBefore;
        qInfo("%d non-readers, %s: manager RSS %lld KiB before, grew by %lld KiB at most; %d dropped, %d still held",
              NonReaders, newListEach ? "a list each" : "one list", before, peak - before, dropped,
              Connected(nonReaders));
        for (const QByteArray &line : log.split('\n')) {
            if (line.contains("did not read what the server sent"))
                QVERIFY2(line.contains("Client NonReader"), line.constData());
        }
        QVERIFY2(peak - before < MaxGrowthKb, qPrintable(QString::number(peak - before)));
        nonReaders.clear();
        churn.clear();
        // Sessions come and go over the next rows, and connections are not to stay behind.
        QTRY_VERIFY_WITH_TIMEOUT(manager.OpenFds() <= fdsBefore, 15000);
    }

private:
    bool ListenerUp() const
    {
        QTcpSocket probe;
        probe.connectToHost(QHostAddress::LocalHost, port);
        return probe.waitForConnected(1000);
    }

    // A raw session that reads and discards what it gets.
    void AddSession(Sockets &group, const QByteArray &origin, const QHostAddress &from)
    {
        auto session = RawWebSocket(port, origin, from);
        if (session) {
            QSslSocket *s = session.get();
            connect(s, &QIODevice::readyRead, s, [s] { s->readAll(); });
        }
        group.push_back(std::move(session));
    }

    // The whole list, within AnswerWithinMs of asking.
    static bool AnsweredInTime(TarnClt &client)
    {
        QElapsedTimer elapsed;
        elapsed.start();
        QString body;
        while (body.count(QLatin1Char(',')) < 2 * ListedSessions && elapsed.elapsed() < AnswerWithinMs)
            client.RequestActiveClients(body);
        qInfo("list of %d entries in %lld ms", int(body.count(QLatin1Char(',')) / 2), elapsed.elapsed());
        return elapsed.elapsed() < AnswerWithinMs;
    }

    Manager manager;
    quint16 port = 0;
    Sockets listed;
    Sockets churn;
    QTimer beats;
};

QTEST_MAIN(TestUnsent)
#include "tst_unsent.moc"
