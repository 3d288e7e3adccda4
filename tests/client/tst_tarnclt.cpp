#include "tarnclt.h"
#include "tarnsrv.h"
#include "tlsconfig.h"

#include <QTcpServer>
#include <QWebSocket>
#include <QWebSocketServer>
#include <QtTest>
#include <memory>

namespace {

ClientRecord Identity(const QString &session, const QString &name)
{
    ClientRecord rec;
    rec.firstUuid = QUuid::createUuid();
    rec.sessionUuid = QUuid(session);
    rec.thirdUuid = QUuid::createUuid();
    rec.guestName = name;
    return rec;
}

QUrl LocalUrl(quint16 port)
{
    return QUrl(QStringLiteral("wss://127.0.0.1:%1").arg(port));
}

const QString SessionA = QStringLiteral("{aaaaaaaa-0000-0000-0000-000000000001}");
const QString SessionB = QStringLiteral("{bbbbbbbb-0000-0000-0000-000000000002}");

// A server that answers every text message with one fixed text and never
// sends a heartbeat of its own.
class ScriptedServer : public QObject
{
public:
    explicit ScriptedServer(const QString &answer)
        : server(QStringLiteral("scripted"), QWebSocketServer::SecureMode)
    {
        server.setSslConfiguration(LoadTlsConfiguration());
        server.listen(QHostAddress::LocalHost, 0);
        connect(&server, &QWebSocketServer::newConnection, this, [this, answer] {
            QWebSocket *socket = server.nextPendingConnection();
            socket->setParent(this);
            connect(socket, &QWebSocket::textMessageReceived, socket,
                    [socket, answer](const QString &) { socket->sendTextMessage(answer); });
        });
    }
    QUrl Url() const { return LocalUrl(server.serverPort()); }

private:
    QWebSocketServer server;
};

} // namespace

class TestTarnClt : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void noConnection();
    void buildOrigin();
    void pingAndClients_data();
    void pingAndClients();
    void openSameUrlKeepsConnection();
    void openOtherUrlClosesSilently();
    void serverStopIsUnexpected();
    void silentServerIsLost();
    void replyRecognition_data();
    void replyRecognition();
    void unreachableServer();
    void oversizedTrafficGivesUp_data();
    void oversizedTrafficGivesUp();

private:
    std::unique_ptr<TarnSrv> server;
    QUrl url;
};

void TestTarnClt::init()
{
    server = std::make_unique<TarnSrv>();
    QCOMPARE(server->Start(0), 0);
    url = LocalUrl(server->ListeningPort());
}

void TestTarnClt::cleanup()
{
    server.reset();
}

void TestTarnClt::noConnection()
{
    TarnClt client;
    QCOMPARE(client.Ping(), -10);
    QString out = QStringLiteral("untouched");
    QCOMPARE(client.RequestActiveClients(out), -10);
    QCOMPARE(out, QStringLiteral("untouched"));
}

void TestTarnClt::buildOrigin()
{
    ClientRecord rec = Identity(SessionA, QStringLiteral("Ann, Lee"));
    rec.firstUuid = QUuid(QStringLiteral("{ABCDEF01-0000-0000-0000-000000000000}"));
    rec.thirdUuid = QUuid();
    QCOMPARE(TarnClt::BuildOrigin(rec),
             QStringLiteral("{abcdef01-0000-0000-0000-000000000000},%1,"
                            "{00000000-0000-0000-0000-000000000000},Ann, Lee").arg(SessionA));
}

void TestTarnClt::pingAndClients_data()
{
    QTest::addColumn<QStringList>("sessions");
    QTest::addColumn<QString>("body");

    QTest::newRow("two sessions") << QStringList{SessionA, SessionB}
                                  << QStringLiteral("c0,%1,c1,%2,").arg(SessionA, SessionB);
    QTest::newRow("shared session") << QStringList{SessionB, SessionB} << QStringLiteral("c0,%1,").arg(SessionB);
}

void TestTarnClt::pingAndClients()
{
    QFETCH(QStringList, sessions);
    QFETCH(QString, body);

    std::vector<std::unique_ptr<TarnClt>> clients;
    std::vector<ClientRecord> records;
    records.reserve(sessions.size());
    for (int i = 0; i < sessions.size(); ++i) {
        records.push_back(Identity(sessions.at(i), QStringLiteral("c%1").arg(i)));
        clients.push_back(std::make_unique<TarnClt>());
        QVERIFY(clients.back()->Open(url, &records.back()));
    }
    QCOMPARE(clients.front()->Ping(), 0);
    QString out;
    QCOMPARE(clients.back()->RequestActiveClients(out), 0);
    QCOMPARE(out, body);
}

void TestTarnClt::openSameUrlKeepsConnection()
{
    ClientRecord rec = Identity(SessionA, QStringLiteral("Ann"));
    TarnClt client;
    QVERIFY(client.Open(url, &rec));
    QSignalSpy changed(server.get(), &TarnSrv::ClientsChanged);
    QElapsedTimer elapsed;
    elapsed.start();
    QVERIFY(client.Open(url, &rec));
    QVERIFY(elapsed.elapsed() < TarnClt::ConnectAttemptMs);
    QTest::qWait(100);
    QCOMPARE(changed.count(), 0);
    QCOMPARE(server->GetActiveClients().size(), 1);
}

void TestTarnClt::openOtherUrlClosesSilently()
{
    TarnSrv other;
    QCOMPARE(other.Start(0), 0);
    ClientRecord rec = Identity(SessionA, QStringLiteral("Ann"));
    TarnClt client;
    QSignalSpy lost(&client, &TarnClt::UnexpectedDisconnection);
    QVERIFY(client.Open(url, &rec));
    QVERIFY(client.Open(LocalUrl(other.ListeningPort()), &rec));
    QTRY_VERIFY(server->GetActiveClients().isEmpty());
    QCOMPARE(other.GetActiveClients().size(), 1);
    QCOMPARE(client.Ping(), 0);
    QCOMPARE(lost.count(), 0);
}

void TestTarnClt::serverStopIsUnexpected()
{
    ClientRecord rec = Identity(SessionA, QStringLiteral("Ann"));
    TarnClt client;
    client.SetHeartBeatInterval(100);
    QSignalSpy lost(&client, &TarnClt::UnexpectedDisconnection);
    QVERIFY(client.Open(url, &rec));
    server->Stop();
    QTRY_COMPARE(lost.count(), 1);
    // Neither the heartbeat check nor anything else reports it a second time.
    QTest::qWait(600);
    QCOMPARE(lost.count(), 1);
    QCOMPARE(client.Ping(), -10);
}

void TestTarnClt::silentServerIsLost()
{
    ScriptedServer silent(QStringLiteral("Unknown"));
    ClientRecord rec = Identity(SessionA, QStringLiteral("Ann"));
    TarnClt client;
    client.SetHeartBeatInterval(100);
    QSignalSpy lost(&client, &TarnClt::UnexpectedDisconnection);
    QVERIFY(client.Open(silent.Url(), &rec));
    QElapsedTimer elapsed;
    elapsed.start();
    QTRY_COMPARE(lost.count(), 1);
    // Lost on the fourth silent tick, not before.
    QVERIFY2(elapsed.elapsed() >= 350, qPrintable(QString::number(elapsed.elapsed())));
    QTest::qWait(300);
    QCOMPARE(lost.count(), 1);
}

void TestTarnClt::replyRecognition_data()
{
    QTest::addColumn<QString>("answer");
    QTest::addColumn<int>("ping");
    QTest::addColumn<QString>("body");

    QTest::newRow("pong") << "Server pong" << 0 << "";
    QTest::newRow("pong with fields") << "Server pong,1,2" << 0 << "";
    QTest::newRow("lower-case pong") << "server pong" << -1 << "";
    QTest::newRow("clients answer fails a ping") << "Active clients,a,b," << -1 << "a,b,";
    QTest::newRow("clients without comma") << "Active clients" << -1 << "Active clients";
}

void TestTarnClt::replyRecognition()
{
    QFETCH(QString, answer);
    QFETCH(int, ping);
    QFETCH(QString, body);

    ScriptedServer scripted(answer);
    ClientRecord rec = Identity(SessionA, QStringLiteral("Ann"));
    TarnClt client;
    QVERIFY(client.Open(scripted.Url(), &rec));
    QCOMPARE(client.Ping(), ping);
    QString out = QStringLiteral("stale");
    QCOMPARE(client.RequestActiveClients(out), 0);
    QCOMPARE(out, body);
}

void TestTarnClt::unreachableServer()
{
    // Find a port nobody listens on by taking one and giving it back.
    QTcpServer probe;
    QVERIFY(probe.listen(QHostAddress::LocalHost, 0));
    const quint16 port = probe.serverPort();
    probe.close();

    ClientRecord rec = Identity(SessionA, QStringLiteral("Ann"));
    TarnClt client;
    QSignalSpy lost(&client, &TarnClt::UnexpectedDisconnection);
    QElapsedTimer elapsed;
    elapsed.start();
    QVERIFY(!client.Open(LocalUrl(port), &rec));
    QVERIFY(elapsed.elapsed() >= TarnClt::ConnectAttempts * TarnClt::ConnectAttemptMs - 100);
    QCOMPARE(lost.count(), 0);
}

void TestTarnClt::oversizedTrafficGivesUp_data()
{
    QTest::addColumn<QString>("answer");
    QTest::addColumn<QString>("request");

    QTest::newRow("reply too large to keep")
        << QStringLiteral("Active clients,") + QString(int(TarnClt::MaxIncomingSize), QLatin1Char('x'))
        << QStringLiteral("Get active clients");
    QTest::newRow("more than may wait unsent") << QStringLiteral("Server pong")
                                               << QString(int(TarnClt::MaxUnsentBytes) + 1, QLatin1Char('x'));
}

void TestTarnClt::oversizedTrafficGivesUp()
{
    QFETCH(QString, answer);
    QFETCH(QString, request);

    ScriptedServer scripted(answer);
    ClientRecord rec = Identity(SessionA, QStringLiteral("Ann"));
    TarnClt client;
    QSignalSpy lost(&client, &TarnClt::UnexpectedDisconnection);
    QVERIFY(client.Open(scripted.Url(), &rec));
    client.Send(request);
    QTRY_COMPARE(lost.count(), 1);
    QCOMPARE(client.Ping(), -10);
}

QTEST_MAIN(TestTarnClt)
#include "tst_tarnclt.moc"
