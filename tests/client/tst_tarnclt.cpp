#include "../testsupport.h"
#include "tarnclt.h"
#include "tarnsrv.h"
#include "tlsidentity.h"

#include <QWebSocket>
#include <QWebSocketServer>
#include <QtTest>
#include <memory>

using namespace testsupport;

namespace {

// A server that answers every text message with one fixed text and never
// sends a heartbeat of its own.
class ScriptedServer : public QObject
{
public:
    explicit ScriptedServer(const QString &answer)
        : server(QStringLiteral("scripted"), QWebSocketServer::SecureMode)
    {
        const TlsIdentity identity = TlsIdentity::LoadOrCreate(TlsIdentity::DefaultFolder(), nullptr);
        QSslConfiguration config;
        config.setLocalCertificate(identity.certificate);
        config.setPrivateKey(identity.key);
        config.setPeerVerifyMode(QSslSocket::VerifyNone);
        server.setSslConfiguration(config);
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
    void init()
    {
        server = std::make_unique<TarnSrv>();
        QCOMPARE(server->Start(0), 0);
        url = LocalUrl(server->ListeningPort());
        client = std::make_unique<TarnClt>();
    }

    void cleanup()
    {
        client.reset();
        server.reset();
    }

    void buildOrigin()
    {
        ClientRecord rec = Record(SessionA, QStringLiteral("Ann, Lee"));
        rec.firstUuid = QUuid(QStringLiteral("{ABCDEF01-0000-0000-0000-000000000000}"));
        QCOMPARE(TarnClt::BuildOrigin(rec), "{abcdef01-0000-0000-0000-000000000000}," + SessionA
                                                + ",{00000000-0000-0000-0000-000000000000},Ann, Lee");
    }

    // The same URL keeps the connection at once; another one moves it, and an
    // unreachable one ends it, without a loss report.
    void reopen()
    {
        TarnSrv other;
        QCOMPARE(other.Start(0), 0);
        QSignalSpy lost(client.get(), &TarnClt::UnexpectedDisconnection);
        QVERIFY(client->Open(url, &ann));
        QSignalSpy changed(server.get(), &TarnSrv::ClientsChanged);
        QElapsedTimer elapsed;
        elapsed.start();
        QVERIFY(client->Open(url, &ann));
        QVERIFY(elapsed.elapsed() < 100);
        QTest::qWait(100);
        QCOMPARE(changed.count(), 0);
        QCOMPARE(server->GetActiveClients().size(), 1);

        QVERIFY(client->Open(LocalUrl(other.ListeningPort()), &ann));
        QTRY_VERIFY(server->GetActiveClients().isEmpty());
        QCOMPARE(other.GetActiveClients().size(), 1);
        QCOMPARE(client->Ping(), 0);
        QVERIFY(!client->Open(LocalUrl(FreePort()), &ann));
        QCOMPARE(lost.count(), 0);
    }

    // A reconnect offers the last session's ticket; the pin holds all the same.
    void reconnectChecksPin_data()
    {
        QTest::addColumn<bool>("samePin");
        QTest::newRow("same pin") << true;
        QTest::newRow("another pin") << false;
    }

    void reconnectChecksPin()
    {
        QFETCH(bool, samePin);
        QVERIFY(client->Open(url, &ann));
        const QString presented = client->PeerFingerprint();
        client->SetExpectedFingerprint(samePin ? presented : QString(presented.size(), QLatin1Char('0')));
        client->Close();
        QCOMPARE(client->Open(url, &ann), samePin);
        QCOMPARE(client->PeerFingerprint(), presented);
    }

    void connectionLost_data()
    {
        QTest::addColumn<QString>("answer"); // of a scripted server; none: the real one, stopped
        QTest::addColumn<QString>("request");
        QTest::addColumn<int>("heartBeatMs"); // 0: the product's period
        QTest::addColumn<int>("notBeforeMs");

        QTest::newRow("server stops") << "" << "" << 100 << 0;
        // Lost on the fourth silent tick, not before.
        QTest::newRow("server falls silent") << "Unknown" << "" << 100 << 350;
        QTest::newRow("reply too large to keep")
            << QStringLiteral("Active clients,") + QString(int(TarnClt::MaxIncomingSize), QLatin1Char('x'))
            << "Get active clients" << 0 << 0;
        QTest::newRow("more than may wait unsent")
            << "Server pong" << QString(int(TarnClt::MaxUnsentBytes) + 1, QLatin1Char('x')) << 0 << 0;
    }

    // Reported once, whatever else (the heartbeat check included) notices it later.
    void connectionLost()
    {
        QFETCH(QString, answer);
        QFETCH(QString, request);
        QFETCH(int, heartBeatMs);
        QFETCH(int, notBeforeMs);

        std::unique_ptr<ScriptedServer> scripted;
        if (!answer.isEmpty())
            scripted = std::make_unique<ScriptedServer>(answer);
        if (heartBeatMs)
            client->SetHeartBeatInterval(heartBeatMs);
        QSignalSpy lost(client.get(), &TarnClt::UnexpectedDisconnection);
        QVERIFY(client->Open(scripted ? scripted->Url() : url, &ann));
        QElapsedTimer elapsed;
        elapsed.start();
        if (!scripted)
            server->Stop();
        if (!request.isEmpty())
            client->Send(request);
        QTRY_COMPARE(lost.count(), 1);
        QVERIFY2(elapsed.elapsed() >= notBeforeMs, qPrintable(QString::number(elapsed.elapsed())));
        QTest::qWait(600);
        QCOMPARE(lost.count(), 1);
        // Without a connection nothing is sent and nothing is filled in.
        QCOMPARE(client->Ping(), -10);
        QString out = QStringLiteral("untouched");
        QCOMPARE(client->RequestActiveClients(out), -10);
        QCOMPARE(out, QStringLiteral("untouched"));
    }

    void replyRecognition_data()
    {
        QTest::addColumn<QString>("answer");
        QTest::addColumn<int>("ping");
        QTest::addColumn<QString>("body");

        QTest::newRow("pong") << "Server pong" << 0 << "";
        QTest::newRow("pong with fields") << "Server pong,1,2" << 0 << "";
        QTest::newRow("lower-case pong") << "server pong" << -1 << "";
        QTest::newRow("clients answer fails a ping") << "Active clients,a,b," << -1 << "a,b,";
    }

    void replyRecognition()
    {
        QFETCH(QString, answer);
        QFETCH(int, ping);
        QFETCH(QString, body);

        ScriptedServer scripted(answer);
        QVERIFY(client->Open(scripted.Url(), &ann));
        QCOMPARE(client->Ping(), ping);
        QString out = QStringLiteral("stale");
        QCOMPARE(client->RequestActiveClients(out), 0);
        QCOMPARE(out, body);
    }

    // The handshake completes inside an event loop nested in Open's wait (a
    // timer's blocking call): the wait ends when that loop returns, not at its deadline.
    void connectedInNestedLoop()
    {
        QTimer::singleShot(0, this, [] { QTest::qWait(400); });
        QElapsedTimer elapsed;
        elapsed.start();
        QVERIFY(client->Open(url, &ann));
        QVERIFY(elapsed.elapsed() < TarnClt::ConnectTimeoutMs);
    }

private:
    std::unique_ptr<TarnSrv> server;
    std::unique_ptr<TarnClt> client;
    ClientRecord ann = Record(SessionA, QStringLiteral("Ann"));
    QUrl url;
};

QTEST_MAIN(TestTarnClt)
#include "tst_tarnclt.moc"
