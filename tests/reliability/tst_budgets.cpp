#include "attacksupport.h"
#include "connectionbudget.h"
#include "tarnclt.h"
#include "tarnsrv.h"

#include <QScopeGuard>
#include <QStandardPaths>
#include <QtTest>

#include <openssl/ssl.h>

#include <arpa/inet.h>
#include <atomic>
#include <chrono>
#include <deque>
#include <fcntl.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <thread>
#include <vector>

// Attacks on the connection budgets of the real manager, from several
// loopback source addresses at the scale of a real attack: a good client
// from another address is served throughout, and the manager's CPU and
// memory are reported.
using namespace attacks;
using namespace testsupport;

namespace {

constexpr int ChurnPerSecond = 4000;
constexpr int ListedWithinMs = 2000;

QHostAddress Address(int second, int third, int fourth)
{
    return QHostAddress(QStringLiteral("127.%1.%2.%3").arg(second).arg(third).arg(fourth));
}

// A client's first flight, as OpenSSL sends it.
QByteArray ClientHello()
{
    SSL_CTX *context = SSL_CTX_new(TLS_client_method());
    SSL *ssl = SSL_new(context);
    BIO *out = BIO_new(BIO_s_mem());
    SSL_set_bio(ssl, BIO_new(BIO_s_mem()), out);
    SSL_connect(ssl);
    char *data = nullptr;
    const long size = BIO_get_mem_data(out, &data);
    const QByteArray hello(data, int(size));
    SSL_free(ssl);
    SSL_CTX_free(context);
    return hello;
}

sockaddr_in Ipv4(const QHostAddress &address, quint16 port)
{
    sockaddr_in socketAddress{};
    socketAddress.sin_family = AF_INET;
    socketAddress.sin_port = htons(port);
    socketAddress.sin_addr.s_addr = htonl(address.toIPv4Address());
    return socketAddress;
}

// Connects from the sources in turn at a steady rate on a thread of its own,
// sends the opening if any and holds each connection until MaxHeld newer ones
// exist (or the server closes it), as a flood that never reads does. With a
// network namespace named, the thread's sockets live there.
class Churn
{
public:
    Churn(quint16 port, const QList<QHostAddress> &sources, const QByteArray &opening, const QString &netns = {})
    {
        std::vector<sockaddr_in> from;
        for (const QHostAddress &source : sources)
            from.push_back(Ipv4(source, 0));
        const QByteArray space = netns.isEmpty() ? QByteArray() : "/run/netns/" + netns.toLocal8Bit();
        thread = std::thread([this, port, from, opening, space] {
            if (space.isEmpty() || Enter(space))
                Run(Ipv4(QHostAddress::LocalHost, port), from, opening);
        });
    }

    ~Churn()
    {
        stop = true;
        thread.join();
    }

    long Made() const { return made; }

private:
    static constexpr size_t MaxHeld = 2000;

    static bool Enter(const QByteArray &netns)
    {
        const int space = ::open(netns.constData(), O_RDONLY | O_CLOEXEC);
        const bool entered = space >= 0 && ::setns(space, CLONE_NEWNET) == 0;
        if (space >= 0)
            ::close(space);
        return entered;
    }

    void Run(const sockaddr_in &server, const std::vector<sockaddr_in> &sources, const QByteArray &opening)
    {
        std::deque<int> held;
        const auto start = std::chrono::steady_clock::now();
        while (!stop) {
            std::this_thread::sleep_until(start + std::chrono::microseconds(1000000LL * made / ChurnPerSecond));
            const int descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
            if (descriptor >= 0) {
                // A reset on close: no TIME_WAIT left behind for thousands of ports.
                const linger reset{1, 0};
                const timeval wait{0, 200000};
                ::setsockopt(descriptor, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
                ::setsockopt(descriptor, SOL_SOCKET, SO_SNDTIMEO, &wait, sizeof wait);
                const sockaddr_in &source = sources[size_t(made) % sources.size()];
                ::bind(descriptor, reinterpret_cast<const sockaddr *>(&source), sizeof source);
                if (::connect(descriptor, reinterpret_cast<const sockaddr *>(&server), sizeof server) == 0
                    && !opening.isEmpty())
                    ::send(descriptor, opening.constData(), size_t(opening.size()), MSG_NOSIGNAL | MSG_DONTWAIT);
                held.push_back(descriptor);
            }
            while (held.size() > MaxHeld || (descriptor < 0 && !held.empty())) {
                ::close(held.front());
                held.pop_front();
            }
            ++made;
        }
        for (const int descriptor : held)
            ::close(descriptor);
    }

    std::atomic<bool> stop{false};
    std::atomic<long> made{0};
    std::thread thread;
};

// A client delayMs away: each step after the connect starts that much later,
// as over a slow link. The time from its connect to the client list in hand,
// or -1 when it had no list within ListedWithinMs.
qint64 ListedAfterMs(quint16 port, const QHostAddress &source, int delayMs)
{
    QElapsedTimer elapsed;
    elapsed.start();
    const auto left = [&elapsed] { return int(qMax<qint64>(0, ListedWithinMs - elapsed.elapsed())); };
    QSslSocket socket;
    socket.setPeerVerifyMode(QSslSocket::VerifyNone);
    socket.bind(source);
    socket.connectToHost(QHostAddress::LocalHost, port);
    const auto connected = [&socket] { return socket.state() == QAbstractSocket::ConnectedState; };
    if (!WaitFor(connected, left()))
        return -1;
    QTest::qWait(delayMs); // the link's delay, not a wait for the server
    socket.startClientEncryption();
    if (!WaitFor([&] { return socket.isEncrypted() || !connected(); }, left()) || !socket.isEncrypted())
        return -1;
    QTest::qWait(delayMs);
    socket.write(UpgradeRequest(port, Origin("Good")));
    QByteArray reply;
    const auto received = [&](const QByteArray &what) {
        return WaitFor([&] { return (reply += socket.readAll()).contains(what) || !connected(); }, left())
            && reply.contains(what);
    };
    if (!received("\r\n\r\n") || !reply.startsWith("HTTP/1.1 101"))
        return -1;
    socket.write(Frame(0x1, "Get active clients", 18));
    return received("Active clients,") ? elapsed.elapsed() : -1;
}

// Upgraded sessions from source, opened batch by batch; those the server
// refused or closed are gone from the list.
Sockets OpenSessions(quint16 port, const QHostAddress &source, int attempts)
{
    constexpr int Batch = 100;
    Sockets sessions;
    for (int first = 0; first < attempts; first += Batch) {
        Sockets batch;
        for (int i = first; i < qMin(attempts, first + Batch); ++i) {
            auto socket = std::make_unique<QSslSocket>();
            QSslSocket *raw = socket.get();
            raw->setPeerVerifyMode(QSslSocket::VerifyNone);
            raw->bind(source);
            QObject::connect(raw, &QSslSocket::encrypted, raw,
                             [raw, port, i] { raw->write(UpgradeRequest(port, Origin("Filler" + QByteArray::number(i)))); });
            raw->connectToHostEncrypted(QStringLiteral("127.0.0.1"), port);
            batch.push_back(std::move(socket));
        }
        const auto settled = [](const auto &s) {
            return s->state() == QAbstractSocket::UnconnectedState || s->peek(4096).contains("\r\n\r\n");
        };
        WaitFor([&] { return std::all_of(batch.begin(), batch.end(), settled); }, 30000);
        for (auto &socket : batch) {
            if (socket->state() == QAbstractSocket::ConnectedState && socket->peek(16).startsWith("HTTP/1.1 101"))
                sessions.push_back(std::move(socket));
        }
    }
    return sessions;
}

bool Ip(const QStringList &arguments)
{
    return QProcess::execute(QStringLiteral("ip"), arguments) == 0;
}

// One end of the link: its address, up, with lo.
bool ConfigureEnd(const QString &netns, const QString &device, const QString &address)
{
    return Ip({QStringLiteral("-n"), netns, QStringLiteral("addr"), QStringLiteral("add"), address,
               QStringLiteral("dev"), device})
        && Ip({QStringLiteral("-n"), netns, QStringLiteral("link"), QStringLiteral("set"), device, QStringLiteral("up")})
        && Ip({QStringLiteral("-n"), netns, QStringLiteral("link"), QStringLiteral("set"), QStringLiteral("lo"),
               QStringLiteral("up")});
}

// 150 ms of delay on what leaves the device; false where the kernel has no netem.
bool AddDelay(const QString &netns, const QString &device)
{
    return Ip({QStringLiteral("netns"), QStringLiteral("exec"), netns, QStringLiteral("tc"), QStringLiteral("qdisc"),
               QStringLiteral("add"), QStringLiteral("dev"), device, QStringLiteral("root"), QStringLiteral("netem"),
               QStringLiteral("delay"), QStringLiteral("150ms")});
}

} // namespace

class TestBudgets : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        // Every descriptor the system allows, for the attackers.
        rlimit limit{};
        QCOMPARE(getrlimit(RLIMIT_NOFILE, &limit), 0);
        limit.rlim_cur = limit.rlim_max;
        QCOMPARE(setrlimit(RLIMIT_NOFILE, &limit), 0);
        QVERIFY2(limit.rlim_cur > 8000, "too few descriptors for these attacks");
    }

    void cleanup()
    {
        good.Close();
        if (manager)
            manager->Stop();
        manager.reset();
    }

    // Connections churned from four /24 networks at thousands a second, kept
    // open or sent a ClientHello: a good client from another network, near
    // or 150 ms away, is served every time.
    void churn_data()
    {
        QTest::addColumn<QByteArray>("opening");
        QTest::addColumn<int>("delayMs");

        QTest::newRow("bare connects, near") << QByteArray() << 0;
        QTest::newRow("bare connects, 150 ms away") << QByteArray() << 150;
        QTest::newRow("ClientHello, near") << ClientHello() << 0;
        QTest::newRow("ClientHello, 150 ms away") << ClientHello() << 150;
    }

    void churn()
    {
        QFETCH(QByteArray, opening);
        QFETCH(int, delayMs);
        constexpr int Tries = 12;
        StartManager();
        Churn churn(port, ChurnSources(), opening);
        QVERIFY(WaitFor([&] { return churn.Made() > ChurnPerSecond; }, 5000));
        const long madeBefore = churn.Made();
        const qint64 cpuBefore = manager->CpuMs();
        QElapsedTimer elapsed;
        elapsed.start();
        QList<qint64> times;
        for (int i = 0; i < Tries; ++i)
            times.append(ListedAfterMs(port, QHostAddress::LocalHost, delayMs));
        const double seconds = double(elapsed.elapsed()) / 1000;
        qInfo("%.0f connects/s, manager CPU %.0f %% of a core, RSS %lld KiB; listed after (ms): %s",
              double(churn.Made() - madeBefore) / seconds, double(manager->CpuMs() - cpuBefore) / seconds / 10,
              manager->RssKb(), qPrintable(Join(times)));
        QVERIFY2(!times.contains(-1), qPrintable(Join(times)));
        QVERIFY2(double(churn.Made() - madeBefore) / seconds > ChurnPerSecond / 2, "the churn fell behind");
        ExpectSummary("connections were closed at once: their address connected faster than");
    }

    // The churn inside a private network namespace, while the good client, in
    // another joined to it by a veth pair with 150 ms of delay each way, asks
    // the tarn tool for the list. Nothing leaves the two namespaces.
    void churnOverLink_data()
    {
        QTest::addColumn<QByteArray>("opening");

        QTest::newRow("bare connects") << QByteArray();
        QTest::newRow("ClientHello") << ClientHello();
    }

    void churnOverLink()
    {
        QFETCH(QByteArray, opening);
        constexpr int Tries = 10;
        if (geteuid() != 0)
            QSKIP("creating network namespaces needs root");
        if (QStandardPaths::findExecutable(QStringLiteral("ip")).isEmpty()
            || QStandardPaths::findExecutable(QStringLiteral("tc")).isEmpty())
            QSKIP("iproute2 (ip and tc) is not installed");
        const QString tag = QString::number(QCoreApplication::applicationPid());
        const QString server = QStringLiteral("tarn-budgets-%1-s").arg(tag);
        const QString client = QStringLiteral("tarn-budgets-%1-c").arg(tag);
        const auto removeHosts = qScopeGuard([&] {
            cleanup();
            Ip({QStringLiteral("netns"), QStringLiteral("del"), server});
            Ip({QStringLiteral("netns"), QStringLiteral("del"), client});
        });
        QVERIFY(Ip({QStringLiteral("netns"), QStringLiteral("add"), server}));
        QVERIFY(Ip({QStringLiteral("netns"), QStringLiteral("add"), client}));
        const QString serverEnd = QStringLiteral("tbg%1s").arg(tag);
        const QString clientEnd = QStringLiteral("tbg%1c").arg(tag);
        QVERIFY(Ip({QStringLiteral("link"), QStringLiteral("add"), serverEnd, QStringLiteral("netns"), server,
                    QStringLiteral("type"), QStringLiteral("veth"), QStringLiteral("peer"), QStringLiteral("name"),
                    clientEnd, QStringLiteral("netns"), client}));
        QVERIFY(ConfigureEnd(server, serverEnd, QStringLiteral("10.78.0.1/24")));
        QVERIFY(ConfigureEnd(client, clientEnd, QStringLiteral("10.78.0.2/24")));
        if (!AddDelay(server, serverEnd) || !AddDelay(client, clientEnd))
            QSKIP("the kernel has no netem queueing discipline (sch_netem) to delay the link");

        port = FreePort();
        manager = std::make_unique<Manager>();
        QVERIFY(manager->Start(port, {QStringLiteral("ip"), QStringLiteral("netns"), QStringLiteral("exec"), server}));
        const QString url = QStringLiteral("wss://10.78.0.1:%1").arg(port);
        QVERIFY(WaitFor([&] { return ToolListedAfterMs(client, url) >= 0; }, 15000));
        Churn churn(port, ChurnSources(), opening, server);
        QVERIFY(WaitFor([&] { return churn.Made() > ChurnPerSecond; }, 5000));
        QList<qint64> times;
        for (int i = 0; i < Tries; ++i)
            times.append(ToolListedAfterMs(client, url));
        qInfo("manager RSS %lld KiB; listed after (ms, the tool's start included): %s", manager->RssKb(),
              qPrintable(Join(times)));
        QVERIFY2(!times.contains(-1), qPrintable(Join(times)));
    }

    // One address and then several open sessions until refused: each keeps
    // its share, and a good client from another address, connected before
    // the attack or arriving during it, is served.
    void sessionShare_data()
    {
        QTest::addColumn<int>("addresses");
        QTest::addColumn<int>("attempts");
        QTest::addColumn<QByteArray>("summary"); // of the closes, in the log

        const int share = ConnectionBudget::MaxPerHost;
        QTest::newRow("one address at its share") << 1 << share << QByteArray();
        // The last batch is in flight together: the newest makes room with
        // an unfinished one of its own.
        QTest::newRow("one address one past its share")
            << 1 << share + 1 << QByteArray("unfinished handshakes were closed to make room for newer ones.");
        QTest::newRow("three addresses past their share")
            << 3 << share + 100 << QByteArray("connections were refused: their address held its share of the server.");
    }

    void sessionShare()
    {
        QFETCH(int, addresses);
        QFETCH(int, attempts);
        QFETCH(QByteArray, summary);
        StartManager();
        OpenGoodClient();
        const qint64 before = manager->RssKb();
        std::vector<Sockets> attackers;
        for (int i = 0; i < addresses; ++i) {
            attackers.push_back(OpenSessions(port, Address(20, 1 + i, 1), attempts));
            QCOMPARE(CountConnected(attackers.back()), qMin(attempts, ConnectionBudget::MaxPerHost));
        }
        qInfo("%d addresses, %d sessions each: manager grew by %lld KiB", addresses,
              CountConnected(attackers.front()), manager->RssKb() - before);
        ExpectServed();
        for (const Sockets &held : attackers)
            QCOMPARE(CountConnected(held), qMin(attempts, ConnectionBudget::MaxPerHost));
        if (!summary.isEmpty())
            ExpectSummary(summary);
    }

    // A manager with 1,024 descriptors, sessions from several addresses until
    // none are left: it stays calm, and a good client from another address is
    // served at the cost of the busiest address.
    void descriptorLimit()
    {
        constexpr int Limit = 1024;
        constexpr int Addresses = 4;
        constexpr int Attempts = 300;
        StartManager({QStringLiteral("prlimit"), QStringLiteral("--nofile=%1:%1").arg(Limit), QStringLiteral("--")});
        OpenGoodClient();
        std::vector<Sockets> attackers;
        for (int i = 0; i < Addresses; ++i)
            attackers.push_back(OpenSessions(port, Address(30, 1 + i, 1), Attempts));
        const qint64 cpuBefore = manager->CpuMs();
        QElapsedTimer elapsed;
        elapsed.start();
        // More attempts at the limit, while the newcomer arrives.
        for (int i = 0; i < Addresses; ++i)
            attackers.push_back(OpenSessions(port, Address(30, 1 + i, 1), Attempts / 3));
        ExpectServed();
        const double coreShare = double(manager->CpuMs() - cpuBefore) / double(elapsed.elapsed());
        int held = 0;
        for (const Sockets &sockets : attackers)
            held += CountConnected(sockets);
        qInfo("%d sessions held by %d addresses, %d descriptors open; manager CPU %.0f %% of a core, RSS %lld KiB",
              held, Addresses, manager->OpenFds(), coreShare * 100, manager->RssKb());
        QVERIFY(held + 2 <= Limit - 32); // within the client room, with the good clients
        QVERIFY2(coreShare < 0.5, qPrintable(QString::number(coreShare)));
        ExpectSummary("connections of the busiest address were closed to make room for other addresses.");
    }

private:
    // Four hosts in each of four /24 networks.
    static QList<QHostAddress> ChurnSources()
    {
        QList<QHostAddress> sources;
        for (int network = 1; network <= 4; ++network) {
            for (int host = 1; host <= 4; ++host)
                sources.append(Address(10, network, host));
        }
        return sources;
    }

    // `tarn clients` run in the client's namespace: the time to its list, or
    // -1 when it failed or took more than ListedWithinMs.
    qint64 ToolListedAfterMs(const QString &netns, const QString &url) const
    {
        QProcess tool;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("XDG_CONFIG_HOME"), manager->dir.filePath(QStringLiteral("tool")));
        tool.setProcessEnvironment(env);
        tool.setStandardOutputFile(QProcess::nullDevice());
        QElapsedTimer elapsed;
        elapsed.start();
        tool.start(QStringLiteral("ip"), {QStringLiteral("netns"), QStringLiteral("exec"), netns,
                                          QStringLiteral(TARN_TOOL_PATH), QStringLiteral("clients"),
                                          QStringLiteral("--insecure"), url});
        const bool finished = tool.waitForFinished(ListedWithinMs + 5000);
        const qint64 took = elapsed.elapsed();
        if (!finished) {
            tool.kill();
            tool.waitForFinished();
        }
        const bool listed = finished && tool.exitStatus() == QProcess::NormalExit && tool.exitCode() == 0;
        return listed && took <= ListedWithinMs ? took : -1;
    }

    void StartManager(const QStringList &prefix = {})
    {
        port = FreePort();
        manager = std::make_unique<Manager>();
        QVERIFY(manager->Start(port, prefix));
        QVERIFY(WaitFor([this] { return ListedAfterMs(port, QHostAddress::LocalHost, 0) >= 0; }, 15000));
    }

    void OpenGoodClient()
    {
        goodRecord.sessionUuid = QUuid::createUuid();
        goodRecord.guestName = QStringLiteral("Good");
        QVERIFY(good.Open(LocalUrl(port), &goodRecord));
    }

    // The newcomer from an address of its own, and the client from before.
    void ExpectServed()
    {
        const qint64 newcomer = ListedAfterMs(port, QHostAddress(QStringLiteral("127.0.0.2")), 0);
        qInfo("newcomer listed after %lld ms", newcomer);
        QVERIFY(newcomer >= 0);
        QString body;
        QCOMPARE(good.RequestActiveClients(body), 0);
        QVERIFY2(body.contains(goodRecord.sessionUuid.toString()), qPrintable(body.left(200)));
    }

    // The manager counts what it closed in a line per period, not one per
    // connection.
    void ExpectSummary(const QByteArray &text)
    {
        QTRY_VERIFY_WITH_TIMEOUT(manager->Log().contains(text), TarnSrv::LogSummaryPeriodMs + 5000);
        const int lines = int(manager->Log().count(text));
        QVERIFY2(lines <= 3, qPrintable(QString::number(lines)));
    }

    static QString Join(const QList<qint64> &values)
    {
        QStringList texts;
        for (const qint64 value : values)
            texts.append(QString::number(value));
        return texts.join(QLatin1Char(' '));
    }

    std::unique_ptr<Manager> manager;
    quint16 port = 0;
    TarnClt good;
    ClientRecord goodRecord;
};

QTEST_MAIN(TestBudgets)
#include "tst_budgets.moc"
