#include "../testsupport.h"
#include "tarnclt.h"

#include <QProcess>
#include <QSettings>
#include <QTcpServer>
#include <QWebSocket>
#include <QtTest>
#include <memory>
#include <signal.h>

using namespace testsupport;

// TarnSrv as a service runs it: no display, a program folder with its
// TarnSrv.cfg, and private settings, identity, lock and temporary folders.
class TestHeadless : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        dir = std::make_unique<QTemporaryDir>();
        // The stored port is taken: a run that ignored --port could not serve.
        QVERIFY(takenPort.listen(QHostAddress::Any, 0));
        QVERIFY(MakeManagerFolder(dir->path(), QStringLiteral(TARN_MANAGER_PATH), takenPort.serverPort()));
        err.clear();
        connect(&manager, &QProcess::readyReadStandardError, this, [this] { err += manager.readAllStandardError(); });
    }

    void cleanup()
    {
        manager.kill();
        manager.waitForFinished();
        manager.disconnect(this);
        takenPort.close();
        dir.reset();
    }

    void exitCodes_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<int>("code");
        QTest::addColumn<QString>("message");

        const QString range = QStringLiteral("the port must be a number from 1 to 65535");
        QTest::newRow("port 0") << QStringList{"--port", "0"} << 2 << range;
        QTest::newRow("port above the range") << QStringList{"--headless", "--port", "65536"} << 2 << range;
        QTest::newRow("unknown option") << QStringList{"--daemon"} << 2 << "Unknown option 'daemon'";
        // No display: headless without being asked, so the failed start ends the run.
        QTest::newRow("start on a taken port") << QStringList{"--start"} << 1 << "Failed to start Tarn server.";
    }

    void exitCodes()
    {
        QFETCH(QStringList, arguments);
        QFETCH(int, code);
        QFETCH(QString, message);

        StartManager(arguments);
        QVERIFY(manager.waitForFinished(20000));
        QCOMPARE(manager.exitStatus(), QProcess::NormalExit);
        QCOMPARE(manager.exitCode(), code);
        QVERIFY2(err.contains(message.toUtf8()), err.constData());
        // A usage error comes before anything is read or stored.
        if (code == 2)
            QVERIFY(!QFileInfo::exists(ConfigFolder()));
    }

    // Clients keep pinging while SIGTERM arrives (SIGINT: tests/scripts): the server goes
    // the usual way, every client is let go, the log file ends with the stop, and the exit is clean.
    void servesUntilTerminated()
    {
        const quint16 port = FreePort();
        StartManager({"--headless", "--start", "--port", QString::number(port)});

        const QRegularExpression where(QStringLiteral("Clients connect to (?:wss://[0-9.]+:%1(?:, )?)+ \\(TLS certificate "
                                                      "SHA-256 fingerprint: [0-9A-F:]+\\)\\.\\n")
                                           .arg(port));
        QTRY_VERIFY_WITH_TIMEOUT(where.match(QString::fromUtf8(err)).hasMatch(), 20000);

        // Each client pings every few milliseconds without waiting for the pong.
        constexpr int ClientCount = 4;
        std::vector<std::unique_ptr<QWebSocket>> clients;
        int pongs = 0;
        int dropped = 0;
        QTimer load;
        for (int i = 0; i < ClientCount; ++i) {
            // A name with an escape sequence, which must not reach a terminal or the journal raw.
            const ClientRecord record = Record(QUuid::createUuid().toString(), QStringLiteral("guest%1\x1b[2J").arg(i));
            clients.push_back(std::make_unique<QWebSocket>(TarnClt::BuildOrigin(record)));
            QWebSocket *client = clients.back().get();
            connect(client, &QWebSocket::sslErrors, client, [client] { client->ignoreSslErrors(); });
            connect(client, &QWebSocket::textMessageReceived, this, [&pongs](const QString &text) {
                pongs += text == Tarn::MsgServerPong;
            });
            connect(client, &QWebSocket::disconnected, this, [&dropped] { ++dropped; });
            connect(&load, &QTimer::timeout, client, [client] { client->sendTextMessage(Tarn::MsgServerPing); });
            client->open(LocalUrl(port));
        }
        load.start(5);
        QTRY_VERIFY(pongs >= 10 * ClientCount);
        // Serving without a window loads no platform plugin, so it builds no widget.
        const QByteArray maps = FileBytes(QStringLiteral("/proc/%1/maps").arg(manager.processId()));
        QVERIFY(maps.contains("libQt"));
        QVERIFY2(!maps.contains("/platforms/"), maps.constData());
        QCOMPARE(::kill(pid_t(manager.processId()), SIGTERM), 0);
        QVERIFY(manager.waitForFinished(20000));
        QCOMPARE(manager.exitStatus(), QProcess::NormalExit);
        QCOMPARE(manager.exitCode(), 0);
        QTRY_COMPARE(dropped, ClientCount);

        const QStringList log = LogMessages();
        QCOMPARE(log.mid(log.size() - 4),
                 (QStringList{"Stopping Tarn server...", "Tarn server stopped.", "", "VARNOK Server closed."}));
        QVERIFY(log.lastIndexOf("Disconnecting all clients...") > log.lastIndexOf(QRegularExpression("^Received ping")));
        // Plain lines only, and nothing a peer sent that a terminal would act on.
        QVERIFY2(!err.contains("<font"), err.constData());
        QVERIFY(err.contains("guest0\xEF\xBF\xBD[2J"));
        QVERIFY(!err.contains('\x1b'));
        QVERIFY(err.contains(" - Info : VARNOK Server closed.\n"));
        // The port of this run was not stored over the configured one.
        QSettings stored(ConfigFolder() + QStringLiteral("/VARNOK Labs/VARNOK Manager.conf"), QSettings::IniFormat);
        QCOMPARE(stored.value(QStringLiteral("Server/PortNr")).toInt(), int(takenPort.serverPort()));
    }

private:
    void StartManager(const QStringList &arguments)
    {
        manager.setProcessEnvironment(ManagerEnvironment(dir->path()));
        manager.start(dir->filePath(QStringLiteral("TarnSrv")), arguments);
        QVERIFY(manager.waitForStarted());
    }

    // The messages of the log file, markup and time stamps taken off.
    QStringList LogMessages() const
    {
        static const QRegularExpression line(QStringLiteral("<font [^>]*>[0-9. :]+ - \\w+ : (.*)</font>$"));
        QStringList messages;
        const QString html = QString::fromUtf8(FileBytes(dir->filePath(QStringLiteral("log/TarnSrvSvc.html"))));
        for (const QString &part : html.split(QStringLiteral("<br>"), Qt::SkipEmptyParts))
            messages.append(line.match(part).captured(1));
        return messages;
    }
    QString ConfigFolder() const { return dir->filePath(QStringLiteral("config")); }

    std::unique_ptr<QTemporaryDir> dir;
    QTcpServer takenPort;
    QProcess manager;
    QByteArray err;
};

QTEST_MAIN(TestHeadless)
#include "tst_headless.moc"
