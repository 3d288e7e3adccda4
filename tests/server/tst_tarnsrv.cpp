#include "../testsupport.h"
#include "descriptorlimit.h"
#include "scalableeventloop.h"
#include "tarnsrv.h"
#include "tlslistener.h"
#include "tlsserversocket.h"

#include <QSslSocket>
#include <QTcpServer>
#include <QWebSocket>
#include <QWebSocketServer>
#include <QtTest>
#include <fcntl.h>
#include <memory>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

using namespace testsupport;

namespace {
const QString NullSession = QStringLiteral("{00000000-0000-0000-0000-000000000000}");

QStringList Repeated(int n, const QString &text)
{
    QStringList list;
    while (n-- > 0)
        list.append(text);
    return list;
}

// The texts of a spy on TarnSrv::Log.
QStringList Texts(const QSignalSpy &log)
{
    QStringList texts;
    for (const QList<QVariant> &line : log)
        texts.append(line.at(0).toString());
    return texts;
}

rlimit DescriptorLimit()
{
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    return limit;
}

QString RoomLine(rlim_t limit)
{
    return QStringLiteral("The descriptor limit leaves room for %1 clients.")
        .arg(limit > rlim_t(Tarn::ReservedDescriptors) ? limit - Tarn::ReservedDescriptors : 0);
}

QStringList StartLines(quint16 port)
{
    return {QStringLiteral("Starting Tarn server."), QStringLiteral("Tarn server started on port %1.\n").arg(port),
            RoomLine(DescriptorLimit().rlim_cur)};
}

qint64 ProcessCpuMs()
{
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return qint64(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

const QStringList StopLines{QStringLiteral("Disconnecting all clients..."), QStringLiteral("Stopping Tarn server..."),
                            QStringLiteral("Tarn server stopped.")};

// A bare WebSocket peer that accepts the self-signed certificate and records
// every text message it receives.
struct WsClient
{
    explicit WsClient(const QString &origin) : socket(origin, QWebSocketProtocol::Version13)
    {
        QObject::connect(&socket, &QWebSocket::sslErrors, &socket, [this] { socket.ignoreSslErrors(); });
        QObject::connect(&socket, &QWebSocket::textMessageReceived, &socket,
                         [this](const QString &msg) { received.append(msg); });
    }

    // Waits until at least n messages have arrived in total.
    bool WaitForMessages(int n)
    {
        QSignalSpy spy(&socket, &QWebSocket::textMessageReceived);
        while (received.size() < n)
            if (!spy.wait(5000))
                return false;
        return true;
    }

    QWebSocket socket;
    QStringList received;
};

QString Origin(const QString &session, const QString &name)
{
    return QStringLiteral("{11111111-1111-1111-1111-111111111111},%1,"
                          "{33333333-3333-3333-3333-333333333333},%2").arg(session, name);
}

// Leaves exactly one descriptor free while it lives.
struct OneFreeDescriptor
{
    OneFreeDescriptor()
    {
        const int lowestFree = open("/dev/null", O_RDONLY);
        close(lowestFree);
        ok = lowestFree >= 0 && getrlimit(RLIMIT_NOFILE, &saved) == 0;
        const rlimit tight{rlim_t(lowestFree) + 1, saved.rlim_max};
        ok = ok && setrlimit(RLIMIT_NOFILE, &tight) == 0;
    }
    ~OneFreeDescriptor()
    {
        if (ok)
            setrlimit(RLIMIT_NOFILE, &saved);
    }

    rlimit saved{};
    bool ok = false;
};

} // namespace

class TestTarnSrv : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        server = std::make_unique<TarnSrv>();
        QVERIFY(server->LoadIdentity());
        log = std::make_unique<QSignalSpy>(server.get(), &TarnSrv::Log);
        QCOMPARE(server->Start(0), 0);
        port = server->ListeningPort();
        QVERIFY(port != 0);
        QCOMPARE(LogTexts(), StartLines(port));
    }

    // No line of the server asks for a message box.
    void cleanup()
    {
        for (const QList<QVariant> &line : *log)
            QVERIFY(!line.at(2).toBool());
        log.reset();
        server.reset();
    }

    void messageDispatch_data()
    {
        QTest::addColumn<QString>("probe");
        QTest::addColumn<bool>("isPing");

        QTest::newRow("ping with arguments") << "Server ping,1,,x" << true;
        QTest::newRow("lower case") << "server ping" << false;
        QTest::newRow("leading blank") << " Server ping" << false;
        QTest::newRow("empty frame") << "" << false;
        QTest::newRow("heart beat is never answered") << "Heart Beat" << false;
    }

    // Each probe is followed by a ping: the replies tell whether the probe was
    // answered as a ping, without waiting for silence.
    void messageDispatch()
    {
        QFETCH(QString, probe);
        QFETCH(bool, isPing);

        auto client = Connect(Origin(SessionA, QStringLiteral("Ann")));
        QVERIFY(client);
        client->socket.sendTextMessage(probe);
        client->socket.sendTextMessage(QStringLiteral("Server ping"));

        const int expected = isPing ? 2 : 1;
        QVERIFY(client->WaitForMessages(expected));
        QTest::qWait(100);
        QCOMPARE(client->received, Repeated(expected, QStringLiteral("Server pong")));

        const QString line = QStringLiteral("Received ping request from client Ann, replied.");
        QCOMPARE(LogTexts().count(line), expected);
    }

    void originFields_data()
    {
        QTest::addColumn<QString>("origin");
        QTest::addColumn<QString>("listed");

        QTest::newRow("unbraced session") << Origin(SessionA.mid(1, 36), QStringLiteral("Bo"))
                                          << "Bo," + SessionA + ",";
        QTest::newRow("session no uuid") << Origin(QStringLiteral("nope"), QStringLiteral("Cy"))
                                         << "Cy," + NullSession + ",";
        QTest::newRow("two fields") << "{11111111-1111-1111-1111-111111111111}," + SessionB
                                    << "," + SessionB + ",";
        QTest::newRow("no origin") << QString() << "," + NullSession + ",";
    }

    void originFields()
    {
        QFETCH(QString, origin);
        QFETCH(QString, listed);

        auto client = Connect(origin);
        QVERIFY(client);
        client->socket.sendTextMessage(QStringLiteral("Get active clients"));
        QVERIFY(client->WaitForMessages(1));
        QCOMPARE(client->received.first(), "Active clients," + listed);
    }

    // Names are listed as sent, markup and all; an origin's fields past the fourth are dropped.
    void activeClientsGroupsBySession()
    {
        auto ann = Connect(Origin(SessionA, QStringLiteral("Ann")));
        auto bob = Connect(Origin(SessionB, QStringLiteral("<b>Bob</b>")));
        auto cid = Connect(Origin(SessionA, QStringLiteral("Cid,Lee,more")));
        QVERIFY(ann && bob && cid);
        bob->socket.sendTextMessage(QStringLiteral("Get active clients"));
        QVERIFY(bob->WaitForMessages(1));
        QCOMPARE(bob->received.first(),
                 QStringLiteral("Active clients,Ann,%1,<b>Bob</b>,%2,").arg(SessionA, SessionB));

        // When the earliest leaves, the session is listed under the next one's name.
        QSignalSpy changed(server.get(), &TarnSrv::ClientsChanged);
        ann->socket.close();
        QVERIFY(changed.wait());
        bob->socket.sendTextMessage(QStringLiteral("Get active clients"));
        QVERIFY(bob->WaitForMessages(2));
        QCOMPARE(bob->received.last(),
                 QStringLiteral("Active clients,<b>Bob</b>,%1,Cid,%2,").arg(SessionB, SessionA));
    }

    // Resumption tickets go to TLS 1.3 sessions alone: a TLS 1.2 ticket holds
    // the master secret, which the ticket key would then lay open.
    void ticketsForTls13Only_data()
    {
        QTest::addColumn<int>("protocol"); // QSsl::SslProtocol
        QTest::addColumn<bool>("ticket");
        QTest::newRow("TLS 1.2") << int(QSsl::TlsV1_2) << false;
        QTest::newRow("TLS 1.3") << int(QSsl::TlsV1_3) << true;
    }

    void ticketsForTls13Only()
    {
        QFETCH(int, protocol);
        QFETCH(bool, ticket);
        QSslSocket client;
        QSslConfiguration config = QSslConfiguration::defaultConfiguration();
        config.setProtocol(QSsl::SslProtocol(protocol));
        config.setPeerVerifyMode(QSslSocket::VerifyNone);
        config.setSslOption(QSsl::SslOptionDisableSessionPersistence, false);
        client.setSslConfiguration(config);
        QSignalSpy tickets(&client, &QSslSocket::newSessionTicketReceived);
        QSignalSpy encrypted(&client, &QSslSocket::encrypted);
        client.connectToHostEncrypted(QStringLiteral("127.0.0.1"), port);
        QTRY_COMPARE(encrypted.count(), 1);
        // A TLS 1.3 ticket follows the handshake; give one the time to come.
        QTest::qWait(300);
        QCOMPARE(client.sslConfiguration().sessionTicketLifeTimeHint() > 0, ticket);
        QCOMPARE(tickets.count() > 0, ticket);
    }

    void abortedHandshakesReleased_data()
    {
        QTest::addColumn<bool>("tlsDone");
        QTest::newRow("before TLS") << false;
        QTest::newRow("after TLS, before the upgrade") << true;
    }

    void abortedHandshakesReleased()
    {
        // Connections that close before their WebSocket handshake must not pile up in the server.
        QFETCH(bool, tlsDone);
        std::vector<std::unique_ptr<QSslSocket>> aborted;
        for (int i = 0; i < 50; ++i) {
            aborted.push_back(std::make_unique<QSslSocket>());
            aborted.back()->setPeerVerifyMode(QSslSocket::VerifyNone);
            if (tlsDone)
                aborted.back()->connectToHostEncrypted(QStringLiteral("127.0.0.1"), port);
            else
                aborted.back()->connectToHost(QHostAddress::LocalHost, port);
        }
        QTRY_COMPARE(server->findChildren<TlsServerSocket *>().size(), 50);
        for (const auto &socket : aborted)
            QTRY_VERIFY(tlsDone ? socket->isEncrypted() : socket->state() == QAbstractSocket::ConnectedState);
        aborted.clear();
        QTRY_COMPARE_WITH_TIMEOUT(server->findChildren<TlsServerSocket *>().size(), 0, 3000);

        QVERIFY(Connect(Origin(SessionA, QStringLiteral("After"))));
    }

    // A client that answers the heartbeats stays while silent ones are dropped.
    void silentClientsDropped()
    {
        auto a = Connect(Origin(SessionA, QStringLiteral("<i>Ann</i>")));
        auto b = Connect(Origin(SessionB, QStringLiteral("Bob")));
        auto c = Connect(Origin(SessionA, QStringLiteral("Cid")));
        auto live = Connect(Origin(NullSession, QStringLiteral("Live")));
        QVERIFY(a && b && c && live);
        // Restarts the running timer: however slow the connections were, the
        // first short period begins now, with all four in place.
        server->SetHeartBeatInterval(500);
        connect(&live->socket, &QWebSocket::textMessageReceived, &live->socket, [&live](const QString &msg) {
            if (msg == QLatin1String("Heart Beat"))
                live->socket.sendTextMessage(msg);
        });
        // Kick off the exchange; the server's first tick then finds a beat every time.
        live->socket.sendTextMessage(QStringLiteral("Heart Beat"));

        // The three silent ones reach the limit on the same tick and go
        // together, one change each.
        QList<int> sizes;
        connect(server.get(), &TarnSrv::ClientsChanged, this,
                [&] { sizes.append(server->GetActiveClients().size()); });
        QTRY_COMPARE_WITH_TIMEOUT(server->GetActiveClients().size(), 1, 5000);
        QCOMPARE(sizes.mid(0, 3), QList<int>({3, 2, 1}));
        QTRY_COMPARE(a->socket.state(), QAbstractSocket::UnconnectedState);

        // Each got the three heartbeats of its surviving ticks, nothing more.
        QCOMPARE(b->received, Repeated(3, QStringLiteral("Heart Beat")));
        const QStringList texts = LogTexts();
        QVERIFY(texts.contains(QStringLiteral("Client &lt;i&gt;Ann&lt;/i&gt; is unreachable and was disconnected.")));
        QVERIFY(texts.contains(QStringLiteral("Client Bob is unreachable and was disconnected.")));
    }

    // A client that pings on and then goes quiet: the first lines as they are,
    // then one count for the rest once the period ends.
    void repeatedPingLinesSummarized()
    {
        auto ann = Connect(Origin(SessionA, QStringLiteral("Ann")));
        QVERIFY(ann);
        log->clear();
        // The period starts now, so the whole burst falls into it.
        server->SetLogSummaryPeriod(1000);
        const int pings = TarnSrv::RepeatedLinesPerPeriod + 5;
        for (int i = 0; i < pings; ++i)
            ann->socket.sendTextMessage(QStringLiteral("Server ping"));
        QVERIFY(ann->WaitForMessages(pings));
        const QString summary = QStringLiteral("Client Ann: 5 more ping requests answered in the last 1 s.");
        QTRY_VERIFY_WITH_TIMEOUT(LogTexts().contains(summary), 3000);
        QCOMPARE(LogTexts(), Repeated(TarnSrv::RepeatedLinesPerPeriod,
                                      QStringLiteral("Received ping request from client Ann, replied."))
                                 << summary);
        QCOMPARE(log->last().at(1).toUInt(), 0u);
    }

    void stopLogsInOrderAndEmitsSocketDestroyed()
    {
        auto a = Connect(Origin(SessionA, QStringLiteral("Ann")));
        QVERIFY(a);
        QSignalSpy destroyed(server.get(), &TarnSrv::SocketDestroyed);
        QSignalSpy changed(server.get(), &TarnSrv::ClientsChanged);
        log->clear();

        server->Stop();
        QVERIFY(!server->IsRunning());
        QVERIFY(server->GetActiveClients().isEmpty());
        QCOMPARE(LogTexts(), StopLines);
        QVERIFY(changed.count() >= 1);

        // The port is free only once the endpoint is really gone.
        QCOMPARE(destroyed.count(), 0);
        QTRY_COMPARE(destroyed.count(), 1);
        QTRY_COMPARE(a->socket.state(), QAbstractSocket::UnconnectedState);

        log->clear();
        server->Stop();
        QVERIFY(log->isEmpty());
        QCOMPARE(server->Start(port), 0);
        QCOMPARE(server->ListeningPort(), port);
    }

    // Starting again keeps the port and logs nothing; another server cannot take it.
    void startOnTakenPort()
    {
        log->clear();
        QCOMPARE(server->Start(0), 0);
        QCOMPARE(server->ListeningPort(), port);
        QVERIFY(log->isEmpty());

        TarnSrv second;
        QVERIFY(second.LoadIdentity());
        QSignalSpy lines(&second, &TarnSrv::Log);
        QCOMPARE(second.Start(port), -1);
        QVERIFY(!second.IsRunning());
        QCOMPARE(Texts(lines), QStringList({"Starting Tarn server.",
                                            QStringLiteral("Failed to start Tarn server. An other server might "
                                                           "already be running on port %1.").arg(port)}));
        QCOMPARE(lines.at(1).mid(1), QVariantList({2u, false}));
    }

    void nestedStartStopIgnored_data()
    {
        QTest::addColumn<bool>("outerStart");
        QTest::addColumn<QString>("atLine");
        QTest::addColumn<bool>("nestedStart");

        // The window's events run inside these steps; a click there calls in again.
        QTest::newRow("stop inside stop") << false << "Disconnecting all clients..." << false;
        QTest::newRow("start inside stop") << false << "Stopping Tarn server..." << true;
        QTest::newRow("start inside start") << true << "Starting Tarn server." << true;
    }

    void nestedStartStopIgnored()
    {
        QFETCH(bool, outerStart);
        QFETCH(QString, atLine);
        QFETCH(bool, nestedStart);

        if (outerStart) {
            QSignalSpy destroyed(server.get(), &TarnSrv::SocketDestroyed);
            server->Stop();
            QTRY_COMPARE(destroyed.count(), 1);
        }
        int nestedResult = 0;
        connect(server.get(), &TarnSrv::Log, this, [&](const QString &text) {
            if (text != atLine)
                return;
            if (nestedStart)
                nestedResult = server->Start(0);
            else
                server->Stop();
        });
        log->clear();
        if (outerStart)
            QCOMPARE(server->Start(0), 0);
        else
            server->Stop();

        QCOMPARE(nestedResult, nestedStart ? -1 : 0);
        QCOMPARE(server->IsRunning(), outerStart);
        QCOMPARE(LogTexts(), outerStart ? StartLines(server->ListeningPort()) : StopLines);
        QTRY_COMPARE(server->findChildren<QWebSocketServer *>().size(), outerStart ? 1 : 0);
    }

    // With no descriptor left for the responder's socket, the server still runs
    // and says once that it cannot be discovered, instead of trying port after port.
    void discoveryWithoutDescriptorsGivesUp()
    {
        TarnSrv second;
        QVERIFY(second.LoadIdentity());
        QSignalSpy lines(&second, &TarnSrv::Log);
        int started = -1;
        {
            const OneFreeDescriptor limit; // the endpoint's
            QVERIFY(limit.ok);
            started = second.Start(0);
        }

        QCOMPARE(started, 0);
        QVERIFY(second.IsRunning());
        QCOMPARE(lines.size(), 4);
        QCOMPARE(lines.at(3).mid(1), QVariantList({1u, false}));
        QVERIFY2(Texts(lines).at(3).startsWith(QStringLiteral("Discovery is not available: cannot bind UDP port 49152 (")),
                 qPrintable(Texts(lines).at(3)));
    }

    // A shell's soft limit would cap the server at about a thousand clients.
    void raisesDescriptorLimit()
    {
        const rlimit saved = DescriptorLimit();
        const rlimit low{std::min<rlim_t>(saved.rlim_max, 256), saved.rlim_max};
        QCOMPARE(setrlimit(RLIMIT_NOFILE, &low), 0);
        const auto restore = qScopeGuard([&] { setrlimit(RLIMIT_NOFILE, &saved); });

        Tarn::RaiseDescriptorLimit();
        QCOMPARE(DescriptorLimit().rlim_cur, saved.rlim_max);
        QCOMPARE(Tarn::ClientRoom(), int(saved.rlim_max) - Tarn::ReservedDescriptors);
    }

    // Out of descriptors, a waiting connection is accepted and closed at once
    // instead of waking the event loop again and again (it used to take a
    // whole core); the server serves again once descriptors are free.
    void refusesWithoutSpinningWhenOutOfDescriptors()
    {
        server->SetLogSummaryPeriod(100);
        // Qt keeps the first error of its listening socket: once an accept
        // has found the queue empty, every later failure reads as "try again".
        // Held to the end: the sanitizers check an object's type on its first
        // use and on its deletion, which takes a descriptor of their own, and
        // a client closed now would be deleted while there are none.
        const auto before = Connect(Origin(SessionA, QStringLiteral("Before")));
        QVERIFY(before);
        QTcpSocket starved;
        QCOMPARE(starved.state(), QAbstractSocket::UnconnectedState);
        QElapsedTimer wall;
        qint64 cpuMs = 0;
        {
            const OneFreeDescriptor limit;
            QVERIFY(limit.ok);
            wall.start();
            const qint64 cpuBefore = ProcessCpuMs();
            starved.connectToHost(QHostAddress::LocalHost, port); // takes the last one
            QTest::qWait(1000);
            cpuMs = ProcessCpuMs() - cpuBefore;
            qInfo("Out of descriptors: %lld ms CPU in %lld ms", cpuMs, wall.elapsed());
            QVERIFY2(cpuMs * 5 < wall.elapsed(), "the server spins");
            QTRY_COMPARE_WITH_TIMEOUT(starved.state(), QAbstractSocket::UnconnectedState, 5000);
        }
        QCOMPARE(starved.error(), QAbstractSocket::RemoteHostClosedError);
        const QString warning = QStringLiteral("1 connections were refused: the server is out of descriptors.");
        QTRY_VERIFY(LogTexts().contains(warning));
        QVERIFY(Connect(Origin(SessionA, QStringLiteral("After"))));
    }

private:
    // A connected client once the server has registered it; null when either never happens.
    std::unique_ptr<WsClient> Connect(const QString &origin)
    {
        auto client = std::make_unique<WsClient>(origin);
        QSignalSpy changed(server.get(), &TarnSrv::ClientsChanged);
        client->socket.open(LocalUrl(port));
        const bool in = QTest::qWaitFor([&] {
            return !changed.isEmpty() && client->socket.state() == QAbstractSocket::ConnectedState;
        }, 5000);
        return in ? std::move(client) : nullptr;
    }
    QStringList LogTexts() const { return Texts(*log); }

    std::unique_ptr<TarnSrv> server;
    std::unique_ptr<QSignalSpy> log;
    quint16 port = 0;
};

// TARN_EPOLL set: the tests run on the headless manager's epoll dispatcher.
int main(int argc, char *argv[])
{
    if (qEnvironmentVariableIsSet("TARN_EPOLL"))
        Tarn::UseScalableEventLoop();
    QCoreApplication app(argc, argv);
    TestTarnSrv test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}
#include "tst_tarnsrv.moc"
