#include "../testsupport.h"
#include "tarnsrv.h"
#include "tlslistener.h"
#include "tlsserversocket.h"
#include "wsclient.h"

#include <QSslSocket>
#include <QTcpServer>
#include <QWebSocketServer>
#include <QtTest>
#include <fcntl.h>
#include <memory>
#include <sys/resource.h>
#include <unistd.h>

using namespace testsupport;

namespace {
const QString NullSession = QStringLiteral("{00000000-0000-0000-0000-000000000000}");

QStringList Repeated(int n, const QString &text)
{
    QStringList list;
    for (int i = 0; i < n; ++i)
        list.append(text);
    return list;
}

struct LogLine
{
    QString text;
    quint32 type;
};

void Collect(TarnSrv &server, QList<LogLine> &into)
{
    QObject::connect(&server, &TarnSrv::Log, &server, [&into](const QString &text, quint32 type, bool msgBox) {
        QVERIFY(!msgBox);
        into.append({text, type});
    });
}

QStringList StartLines(quint16 port)
{
    return {QStringLiteral("Starting Tarn server."), QStringLiteral("Tarn server started on port %1.\n").arg(port)};
}

const QStringList StopLines{QStringLiteral("Disconnecting all clients..."), QStringLiteral("Stopping Tarn server..."),
                            QStringLiteral("Tarn server stopped.")};

// Leaves exactly one descriptor free while it lives.
class OneFreeDescriptor
{
public:
    OneFreeDescriptor()
    {
        const int lowestFree = open("/dev/null", O_RDONLY);
        close(lowestFree);
        if (lowestFree < 0 || getrlimit(RLIMIT_NOFILE, &saved) != 0)
            return;
        const rlimit tight{rlim_t(lowestFree) + 1, saved.rlim_max};
        ok = setrlimit(RLIMIT_NOFILE, &tight) == 0;
    }
    ~OneFreeDescriptor()
    {
        if (ok)
            setrlimit(RLIMIT_NOFILE, &saved);
    }

    bool ok = false;

private:
    rlimit saved{};
};

} // namespace

class TestTarnSrv : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        log.clear();
        server = std::make_unique<TarnSrv>();
        QVERIFY(server->LoadIdentity());
        Collect(*server, log);
        QCOMPARE(server->Start(0), 0);
        port = server->ListeningPort();
        QVERIFY(port != 0);
        QCOMPARE(LogTexts(), StartLines(port));
    }

    void cleanup()
    {
        server.reset();
    }

    void messageDispatch_data()
    {
        QTest::addColumn<QString>("probe");
        QTest::addColumn<bool>("isPing");

        QTest::newRow("ping") << "Server ping" << true;
        QTest::newRow("ping with arguments") << "Server ping,1,,x" << true;
        QTest::newRow("ping with trailing comma") << "Server ping," << true;
        QTest::newRow("lower case") << "server ping" << false;
        QTest::newRow("leading blank") << " Server ping" << false;
        QTest::newRow("empty frame") << "" << false;
        QTest::newRow("unknown name") << "Server pong" << false;
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
        client->socket.sendBinaryMessage(QByteArrayLiteral("Server ping"));
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

        QTest::newRow("four fields") << Origin(SessionA, QStringLiteral("Ann")) << "Ann," + SessionA + ",";
        QTest::newRow("fifth field ignored") << Origin(SessionA, QStringLiteral("Ann,Lee,more"))
                                             << "Ann," + SessionA + ",";
        QTest::newRow("unbraced session") << Origin(SessionA.mid(1, 36), QStringLiteral("Bo"))
                                          << "Bo," + SessionA + ",";
        QTest::newRow("session no uuid") << Origin(QStringLiteral("nope"), QStringLiteral("Cy"))
                                         << "Cy," + NullSession + ",";
        QTest::newRow("two fields") << "{11111111-1111-1111-1111-111111111111}," + SessionB
                                    << "," + SessionB + ",";
        QTest::newRow("no origin") << QString() << "," + NullSession + ",";
        QTest::newRow("markup name sent as is") << Origin(SessionA, QStringLiteral("<b>Di</b>"))
                                                << "<b>Di</b>," + SessionA + ",";
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

    void activeClientsGroupsBySession()
    {
        auto ann = Connect(Origin(SessionA, QStringLiteral("Ann")));
        auto bob = Connect(Origin(SessionB, QStringLiteral("Bob")));
        auto cid = Connect(Origin(SessionA, QStringLiteral("Cid")));
        QVERIFY(ann && bob && cid);

        const QList<ActiveClient> clients = server->GetActiveClients();
        QCOMPARE(clients.size(), 2);
        QCOMPARE(clients.at(0).guestName, QStringLiteral("Ann"));
        QCOMPARE(clients.at(1).guestName, QStringLiteral("Bob"));

        bob->socket.sendTextMessage(QStringLiteral("Get active clients"));
        QVERIFY(bob->WaitForMessages(1));
        QCOMPARE(bob->received.first(),
                 QStringLiteral("Active clients,Ann,%1,Bob,%2,").arg(SessionA, SessionB));

        // When the earliest leaves, the session is listed under the next one's name.
        QSignalSpy changed(server.get(), &TarnSrv::ClientsChanged);
        ann->socket.close();
        QVERIFY(changed.wait());
        bob->socket.sendTextMessage(QStringLiteral("Get active clients"));
        QVERIFY(bob->WaitForMessages(2));
        QCOMPARE(bob->received.last(),
                 QStringLiteral("Active clients,Bob,%1,Cid,%2,").arg(SessionB, SessionA));
    }

    void oversizedMessageClosesConnection()
    {
        auto client = Connect(Origin(SessionA, QStringLiteral("Big")));
        QVERIFY(client);
        QSignalSpy disconnected(&client->socket, &QWebSocket::disconnected);
        client->socket.sendTextMessage(QString(int(TarnSrv::MaxIncomingSize) + 1, QLatin1Char('x')));
        QVERIFY(disconnected.wait(5000));
        QTRY_VERIFY(server->GetActiveClients().isEmpty());
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

        auto client = Connect(Origin(SessionA, QStringLiteral("After")));
        QVERIFY(client);
        QCOMPARE(server->GetActiveClients().size(), 1);
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
        connect(&live->socket, &QWebSocket::textMessageReceived, live.get(), [&live](const QString &msg) {
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
        QTRY_COMPARE(c->socket.state(), QAbstractSocket::UnconnectedState);

        // Each got the three heartbeats of its surviving ticks, nothing more.
        QCOMPARE(b->received, Repeated(3, QStringLiteral("Heart Beat")));
        const QStringList texts = LogTexts();
        QVERIFY(texts.contains(QStringLiteral("Client &lt;i&gt;Ann&lt;/i&gt; is unreachable and was disconnected.")));
        QVERIFY(texts.contains(QStringLiteral("Client Bob is unreachable and was disconnected.")));
        QTest::qWait(500 * 4);
        QCOMPARE(server->GetActiveClients().size(), 1);
        QVERIFY(live->received.size() >= 6);
    }

    // A client that pings on and then goes quiet: the first lines as they are,
    // then one count for the rest once the period ends.
    void repeatedPingLinesSummarized()
    {
        auto ann = Connect(Origin(SessionA, QStringLiteral("Ann")));
        QVERIFY(ann);
        log.clear();
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
        QCOMPARE(log.last().type, 0u);
    }

    void stopLogsInOrderAndEmitsSocketDestroyed()
    {
        auto a = Connect(Origin(SessionA, QStringLiteral("Ann")));
        QVERIFY(a);
        QSignalSpy destroyed(server.get(), &TarnSrv::SocketDestroyed);
        QSignalSpy changed(server.get(), &TarnSrv::ClientsChanged);
        log.clear();

        server->Stop();
        QVERIFY(!server->IsRunning());
        QVERIFY(server->GetActiveClients().isEmpty());
        QCOMPARE(LogTexts(), StopLines);
        QVERIFY(changed.count() >= 1);

        // The port is free only once the endpoint is really gone.
        QCOMPARE(destroyed.count(), 0);
        QTRY_COMPARE(destroyed.count(), 1);
        QTRY_COMPARE(a->socket.state(), QAbstractSocket::UnconnectedState);

        log.clear();
        server->Stop();
        QVERIFY(log.isEmpty());
        QCOMPARE(server->Start(port), 0);
        QCOMPARE(server->ListeningPort(), port);
    }

    // Starting again keeps the port and logs nothing; another server cannot take it.
    void startOnTakenPort()
    {
        log.clear();
        QCOMPARE(server->Start(0), 0);
        QCOMPARE(server->ListeningPort(), port);
        QVERIFY(log.isEmpty());

        TarnSrv second;
        QVERIFY(second.LoadIdentity());
        QList<LogLine> lines;
        Collect(second, lines);
        QCOMPARE(second.Start(port), -1);
        QVERIFY(!second.IsRunning());
        QCOMPARE(lines.size(), 2);
        QCOMPARE(lines.at(0).text, QStringLiteral("Starting Tarn server."));
        QCOMPARE(lines.at(1).type, 2u);
        QCOMPARE(lines.at(1).text,
                 QStringLiteral("Failed to start Tarn server. An other server might already be running on port %1.")
                     .arg(port));
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
        log.clear();
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
        QList<LogLine> lines;
        Collect(second, lines);

        int started = -1;
        {
            const OneFreeDescriptor limit; // the endpoint's
            QVERIFY(limit.ok);
            started = second.Start(0);
        }

        QCOMPARE(started, 0);
        QVERIFY(second.IsRunning());
        QCOMPARE(lines.size(), 3);
        QCOMPARE(lines.at(2).type, 1u);
        QVERIFY2(lines.at(2).text.startsWith(QStringLiteral("Discovery is not available: cannot bind UDP port 49152 (")),
                 qPrintable(lines.at(2).text));
    }

    // Out of descriptors, the listener stops accepting; it takes clients again once some are free.
    void acceptsAgainAfterRunningOutOfDescriptors()
    {
        QSignalSpy refused(server->findChild<TlsListener *>(), &QTcpServer::acceptError);
        QTcpSocket starved;
        // The sanitizers check a socket's type on its first use, which takes a
        // descriptor of their own: not while there are none.
        QCOMPARE(starved.state(), QAbstractSocket::UnconnectedState);
        {
            const OneFreeDescriptor limit;
            QVERIFY(limit.ok);
            starved.connectToHost(QHostAddress::LocalHost, port); // takes the last one
            QVERIFY(refused.wait(5000));
        }
        starved.abort();
        QVERIFY(Connect(Origin(SessionA, QStringLiteral("After"))));
    }

private:
    std::unique_ptr<WsClient> Connect(const QString &origin);
    QStringList LogTexts() const;

    std::unique_ptr<TarnSrv> server;
    QList<LogLine> log;
    quint16 port = 0;
};

std::unique_ptr<WsClient> TestTarnSrv::Connect(const QString &origin)
{
    auto client = std::make_unique<WsClient>(origin);
    QSignalSpy changed(server.get(), &TarnSrv::ClientsChanged);
    if (!client->Open(port) || !(changed.count() > 0 || changed.wait(5000)))
        return nullptr;
    return client;
}

QStringList TestTarnSrv::LogTexts() const
{
    QStringList texts;
    for (const LogLine &line : log)
        texts.append(line.text);
    return texts;
}

QTEST_MAIN(TestTarnSrv)
#include "tst_tarnsrv.moc"
