#include "connectionbudget.h"

#include <QHostAddress>
#include <QtTest>

#include <unordered_map>

using Id = ConnectionBudget::Id;
using Progress = ConnectionProgress;

Q_DECLARE_METATYPE(Progress)

namespace {

ConnectionBudget::Groups Host(int network, int host)
{
    return ConnectionBudget::GroupsOf(QHostAddress(QStringLiteral("10.0.%1.%2").arg(network).arg(host)));
}

// A budget whose connections advance as the test says, behind its back: the
// budget looks only when it chooses whom to close.
struct Fixture
{
    std::unordered_map<Id, Progress> progress;
    ConnectionBudget budget{[this](Id id) { return progress[id]; }};
    Id next = 1;

    ConnectionBudget::Outcome Admit(const ConnectionBudget::Groups &groups) { return budget.Admit(next++, groups); }

    // count connections from the host, admitted without closing anyone.
    bool Fill(const ConnectionBudget::Groups &groups, int count)
    {
        for (int i = 0; i < count; ++i) {
            const auto outcome = Admit(groups);
            if (!outcome.admitted || !outcome.displaced.empty() || !outcome.evicted.empty())
                return false;
        }
        return true;
    }

    void Session(Id id)
    {
        progress[id] = Progress::Session;
        budget.Advance(id, Progress::Session);
    }
};

} // namespace

class TestConnectionBudget : public QObject
{
    Q_OBJECT

private slots:
    void groups_data()
    {
        QTest::addColumn<QString>("a");
        QTest::addColumn<QString>("b");
        QTest::addColumn<bool>("sameHost");
        QTest::addColumn<bool>("sameNetwork");

        QTest::newRow("one /24") << "10.0.0.1" << "10.0.0.254" << false << true;
        QTest::newRow("next /24") << "10.0.0.1" << "10.0.1.1" << false << false;
        QTest::newRow("IPv4-mapped") << "::ffff:10.0.0.1" << "10.0.0.1" << true << true;
        QTest::newRow("one IPv6 address") << "2001:db8::1" << "2001:db8:0:0:0:0:0:1" << true << true;
        QTest::newRow("one /64") << "2001:db8::1" << "2001:db8::ffff:2" << false << true;
        QTest::newRow("link-local") << "fe80::1" << "fe80::2" << false << true;
        QTest::newRow("next /64") << "2001:db8::1" << "2001:db8:0:1::1" << false << false;
        QTest::newRow("IPv4 against an IPv6 look-alike") << "0.0.0.1" << "::1" << false << false;
    }

    void groups()
    {
        QFETCH(QString, a);
        QFETCH(QString, b);
        QFETCH(bool, sameHost);
        QFETCH(bool, sameNetwork);
        const auto first = ConnectionBudget::GroupsOf(QHostAddress(a));
        const auto second = ConnectionBudget::GroupsOf(QHostAddress(b));
        QCOMPARE(first.host == second.host, sameHost);
        QCOMPARE(first.network == second.network, sameNetwork);
    }

    // A host at its share displaces its own least advanced unfinished
    // connection; with sessions only, the newcomer is refused.
    void hostShare_data()
    {
        QTest::addColumn<int>("held");
        QTest::addColumn<bool>("sessions");
        QTest::addColumn<bool>("admitted");
        QTest::addColumn<int>("displaced");

        const int share = ConnectionBudget::MaxPerHost;
        QTest::newRow("one below the share") << share - 1 << false << true << 0;
        QTest::newRow("at the share, unfinished") << share << false << true << 1;
        QTest::newRow("one below the share, sessions") << share - 1 << true << true << 0;
        QTest::newRow("at the share, sessions") << share << true << false << 0;
    }

    void hostShare()
    {
        QFETCH(int, held);
        QFETCH(bool, sessions);
        QFETCH(bool, admitted);
        QFETCH(int, displaced);
        Fixture f;
        for (int i = 0; i < held; ++i) {
            QVERIFY(f.Admit(Host(0, 1)).admitted);
            if (sessions)
                f.Session(f.next - 1);
        }
        const auto outcome = f.Admit(Host(0, 1));
        QCOMPARE(outcome.admitted, admitted);
        QCOMPARE(int(outcome.displaced.size()), displaced);
        if (displaced)
            QCOMPARE(outcome.displaced.front(), Id(1)); // the oldest
        QVERIFY(f.budget.HeldBy(Host(0, 1).host) <= ConnectionBudget::MaxPerHost);
    }

    // Everyone together at the total: an unfinished connection pays first,
    // whoever's; with sessions only, a newcomer from a host that holds less
    // than the biggest costs the biggest its oldest session, and one from the
    // biggest is refused.
    void total_data()
    {
        QTest::addColumn<int>("limit");
        QTest::addColumn<int>("newcomerHost");
        QTest::addColumn<bool>("sessionsOnly");
        QTest::addColumn<bool>("admitted");
        QTest::addColumn<int>("evicted");
        QTest::addColumn<int>("displaced");

        // Host 1 holds 6 sessions, host 2 three connections.
        QTest::newRow("below the total") << 10 << 3 << false << true << 0 << 0;
        QTest::newRow("at the total, light newcomer") << 9 << 3 << false << true << 0 << 1;
        QTest::newRow("at the total, from the second") << 9 << 2 << false << true << 0 << 1;
        QTest::newRow("at the total, from the biggest") << 9 << 1 << false << true << 0 << 1;
        QTest::newRow("sessions only, light newcomer") << 9 << 3 << true << true << 1 << 0;
        QTest::newRow("sessions only, from the second") << 9 << 2 << true << true << 1 << 0;
        QTest::newRow("sessions only, from the biggest") << 9 << 1 << true << false << 0 << 0;
        QTest::newRow("no room at all") << 0 << 3 << false << false << 0 << 0;
    }

    void total()
    {
        QFETCH(int, limit);
        QFETCH(int, newcomerHost);
        QFETCH(bool, sessionsOnly);
        QFETCH(bool, admitted);
        QFETCH(int, evicted);
        QFETCH(int, displaced);
        Fixture f;
        f.budget.SetTotalLimit(limit);
        for (int i = 0; i < 9; ++i) {
            f.Admit(i < 6 ? Host(0, 1) : Host(1, 2));
            if (i < 6 || sessionsOnly)
                f.Session(f.next - 1);
        }
        const int before = f.budget.Total();
        const auto outcome = f.Admit(Host(newcomerHost - 1, newcomerHost));
        QCOMPARE(outcome.admitted, admitted);
        QCOMPARE(int(outcome.evicted.size()), evicted);
        QCOMPARE(int(outcome.displaced.size()), displaced);
        if (evicted)
            QCOMPARE(outcome.evicted.front(), Id(1)); // host 1's oldest session
        if (displaced)
            QCOMPARE(outcome.displaced.front(), Id(7)); // host 2's oldest
        QVERIFY(f.budget.Total() <= qMax(limit, before));
    }

    // Of two hosts that hold as many, the one that grew last pays, whatever
    // their addresses.
    void tieByRecency_data()
    {
        QTest::addColumn<int>("earlier");
        QTest::addColumn<int>("later");

        QTest::newRow("the later the lower address") << 9 << 1;
        QTest::newRow("the later the higher address") << 1 << 9;
    }

    void tieByRecency()
    {
        QFETCH(int, earlier);
        QFETCH(int, later);
        Fixture f;
        f.budget.SetTotalLimit(6);
        for (const int host : {earlier, later}) {
            for (int i = 0; i < 3; ++i) {
                QVERIFY(f.Fill(Host(0, host), 1));
                f.Session(f.next - 1);
            }
        }
        const auto outcome = f.Admit(Host(1, 1));
        QCOMPARE(outcome.evicted, std::vector<Id>{4}); // the later host's oldest
    }

    // At the pending budget the network with the most unfinished connections
    // gives up its least advanced one, as far as it has come by now; the
    // oldest among equals, and one past TLS only when none in that network
    // is short of it.
    void pendingVictim_data()
    {
        QTest::addColumn<QList<Progress>>("heavy"); // the heavy network's first connections, oldest first
        QTest::addColumn<Progress>("rest"); // of the heavy network
        QTest::addColumn<int>("newcomerNetwork");
        QTest::addColumn<int>("victim"); // index into heavy, -1: the first of the rest

        using P = Progress;
        QTest::newRow("no hello before hello") << QList<P>{P::HelloReceived, P::Connected} << P::Ready << 9 << 1;
        QTest::newRow("hello before TLS up") << QList<P>{P::Secure, P::HelloReceived} << P::Ready << 9 << 1;
        QTest::newRow("TLS up before ready") << QList<P>{P::Ready, P::Secure} << P::Ready << 9 << 1;
        QTest::newRow("equals: the oldest") << QList<P>{P::Connected, P::Connected} << P::Connected << 9 << 0;
        QTest::newRow("past TLS last") << QList<P>{P::Secure, P::Ready} << P::Connected << 9 << -1;
        QTest::newRow("from the heavy network itself")
            << QList<P>{P::HelloReceived, P::Connected} << P::Ready << 0 << 1;
    }

    void pendingVictim()
    {
        QFETCH(QList<Progress>, heavy);
        QFETCH(Progress, rest);
        QFETCH(int, newcomerNetwork);
        QFETCH(int, victim);
        Fixture f;
        // Network 0 holds the most: its marked connections, then fillers.
        const int perLight = 150;
        const int heavyCount = ConnectionBudget::MaxPending - 4 * perLight;
        QVERIFY(f.Fill(Host(0, 1), heavyCount));
        for (int i = 0; i < heavyCount; ++i)
            f.progress[Id(1 + i)] = heavy.value(i, rest);
        for (int n = 1; n <= 4; ++n)
            QVERIFY(f.Fill(Host(n, 1), perLight));
        const auto outcome = f.Admit(Host(newcomerNetwork, 2));
        QVERIFY(outcome.admitted);
        QCOMPARE(int(outcome.displaced.size()), 1);
        QCOMPARE(outcome.displaced.front(), Id(victim < 0 ? 1 + heavy.size() : 1 + victim));
        QCOMPARE(f.budget.PendingIn(Host(0, 1).network), heavyCount - 1 + (newcomerNetwork == 0));
        QCOMPARE(f.budget.Pending(), ConnectionBudget::MaxPending);
    }

    // One network at its share of the pending budget displaces its own, even
    // when the budget has room; sessions no longer count against it.
    void networkShare_data()
    {
        QTest::addColumn<int>("held");
        QTest::addColumn<int>("sessions");
        QTest::addColumn<int>("displaced");

        const int share = ConnectionBudget::MaxPendingPerNetwork;
        QTest::newRow("one below") << share - 1 << 0 << 0;
        QTest::newRow("at the share") << share << 0 << 1;
        QTest::newRow("at the share, one a session") << share << 1 << 0;
    }

    void networkShare()
    {
        QFETCH(int, held);
        QFETCH(int, sessions);
        QFETCH(int, displaced);
        Fixture f;
        for (int i = 0; i < held; ++i)
            QVERIFY(f.Fill(Host(0, 1 + i % 250), 1));
        for (int i = 0; i < sessions; ++i)
            f.Session(Id(1 + i));
        const auto outcome = f.Admit(Host(0, 251));
        QCOMPARE(int(outcome.displaced.size()), displaced);
        QVERIFY(f.budget.PendingIn(Host(0, 1).network) <= ConnectionBudget::MaxPendingPerNetwork);
    }

    // A network at its share pays from its busiest address, with that
    // address's least advanced connection: one address's stalled
    // connections past TLS do not make a neighbour's handshake the one closed.
    void busiestAddressPays_data()
    {
        QTest::addColumn<int>("stalled"); // from 10.0.0.1, past TLS
        QTest::addColumn<int>("handshakes"); // from 10.0.0.2, no hello yet
        QTest::addColumn<int>("victimHost");

        const int share = ConnectionBudget::MaxPendingPerNetwork;
        QTest::newRow("the stalled address the busiest") << share - 1 << 1 << 1;
        QTest::newRow("the handshakes the busiest") << 1 << share - 1 << 2;
    }

    void busiestAddressPays()
    {
        QFETCH(int, stalled);
        QFETCH(int, handshakes);
        QFETCH(int, victimHost);
        Fixture f;
        for (int i = 0; i < stalled; ++i) {
            QVERIFY(f.Fill(Host(0, 1), 1));
            f.progress[f.next - 1] = Progress::Secure;
        }
        QVERIFY(f.Fill(Host(0, 2), handshakes));
        const auto outcome = f.Admit(Host(0, 3));
        QCOMPARE(int(outcome.displaced.size()), 1);
        QCOMPARE(f.budget.HeldBy(Host(0, victimHost).host), (victimHost == 1 ? stalled : handshakes) - 1);
    }

    // A network's burst, then its rate, and within it each machine's: past
    // either the newcomer is refused, and another network is not affected.
    // A machine past its own leaves its neighbours their share.
    void rate_data()
    {
        QTest::addColumn<int>("machines"); // of network 0, connecting in turn
        QTest::addColumn<int>("connects");
        QTest::addColumn<int>("afterMs");
        QTest::addColumn<bool>("admitted"); // the next machine's next connection
        QTest::addColumn<bool>("neighbour"); // then one that has not connected yet

        const int burst = ConnectionBudget::Burst;
        const int tokenMs = 1000 / ConnectionBudget::RatePerSecond;
        QTest::newRow("the burst") << 250 << burst - 1 << 0 << true << false;
        QTest::newRow("one past the burst") << 250 << burst << 0 << false << false;
        QTest::newRow("one token later") << 250 << burst << tokenMs << true << false;
        QTest::newRow("just short of a token") << 250 << burst << tokenMs - 1 << false << false;

        const int hostBurst = ConnectionBudget::HostBurst;
        const int hostTokenMs = 1000 / ConnectionBudget::HostRatePerSecond;
        QTest::newRow("a machine's burst") << 1 << hostBurst - 1 << 0 << true << true;
        QTest::newRow("one past a machine's burst") << 1 << hostBurst << 0 << false << true;
        QTest::newRow("a machine's token later") << 1 << hostBurst << hostTokenMs << true << true;
        QTest::newRow("a machine in a loop") << 1 << 10 * burst << 0 << false << true;
    }

    void rate()
    {
        QFETCH(int, machines);
        QFETCH(int, connects);
        QFETCH(int, afterMs);
        QFETCH(bool, admitted);
        QFETCH(bool, neighbour);
        ConnectionBudget budget([](Id) { return Progress::Connected; });
        const auto machine = [machines](int i) { return Host(0, 1 + i % machines); };
        for (int i = 0; i < connects; ++i)
            budget.WithinRate(machine(i), 0);
        QCOMPARE(budget.WithinRate(machine(connects), afterMs), admitted);
        QCOMPARE(budget.WithinRate(Host(0, 254), afterMs), neighbour);
        QVERIFY(budget.WithinRate(Host(1, 1), afterMs));
    }

    // A group quiet for a whole burst's refill starts afresh; the forgetting
    // does not hand anyone a second burst early.
    void forgetQuietGroups()
    {
        ConnectionBudget budget([](Id) { return Progress::Connected; });
        const auto machine = [](int i) { return Host(0, 1 + i % 250); };
        for (int i = 0; i < ConnectionBudget::Burst; ++i)
            QVERIFY(budget.WithinRate(machine(i), 0));
        budget.ForgetQuietGroups(500);
        for (int i = 0; i < 500 * ConnectionBudget::RatePerSecond / 1000; ++i)
            QVERIFY(budget.WithinRate(machine(i), 500));
        QVERIFY(!budget.WithinRate(machine(0), 500));
        const qint64 refilledMs = 500 + 1000 * ConnectionBudget::Burst / ConnectionBudget::RatePerSecond;
        budget.ForgetQuietGroups(refilledMs);
        for (int i = 0; i < ConnectionBudget::Burst; ++i)
            QVERIFY(budget.WithinRate(machine(i), refilledMs));
    }
};

QTEST_APPLESS_MAIN(TestConnectionBudget)
#include "tst_connectionbudget.moc"
