#include "../testsupport.h"
#include "tarnclt.h"
#include "tarnsrv.h"

#include <QProcess>
#include <QRegularExpression>
#include <QtTest>
#include <memory>

using namespace testsupport;

// Runs the real `tarn` program against a server in this process; the test
// waits through the event loop so the server keeps answering meanwhile.
class TestTarnTool : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        qRegisterMetaType<QProcess::ExitStatus>();
        server = std::make_unique<TarnSrv>();
        QCOMPARE(server->Start(0), 0);
        url = LocalUrl(server->ListeningPort()).toString();
        ann = std::make_unique<TarnClt>();
        QVERIFY(ann->Open(QUrl(url), &annRecord));
    }

    void cleanupTestCase()
    {
        ann.reset();
        server.reset();
    }

    void commands_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QString>("out");
        QTest::addColumn<QString>("err");

        const QString table = QStringLiteral("GUEST NAME  SESSION\n"
                                             "Ann         %1\n"
                                             "Zed         %2\n").arg(SessionA, SessionB);
        const QString json = QStringLiteral("[\n"
                                            "    {\n"
                                            "        \"guestName\": \"Ann\",\n"
                                            "        \"sessionUuid\": \"%1\"\n"
                                            "    },\n"
                                            "    {\n"
                                            "        \"guestName\": \"Zed <3\",\n"
                                            "        \"sessionUuid\": \"%2\"\n"
                                            "    }\n"
                                            "]\n").arg(SessionA, SessionB);
        const QStringList zed{QStringLiteral("--name"), QStringLiteral("Zed"),
                              QStringLiteral("--session"), SessionB};
        // ESC, BEL and DEL: a terminal acts on each instead of showing it.
        const QStringList eve{QStringLiteral("--name"), QStringLiteral("Eve\x1b[2J\x07\x7f!"),
                              QStringLiteral("--session"), SessionB};
        const QString eveTable = QStringLiteral("GUEST NAME  SESSION\n"
                                                "Ann         %1\n"
                                                "Eve\ufffd[2J\ufffd\ufffd!  %2\n")
                                     .arg(SessionA, SessionB);
        const QString eveJson = QStringLiteral("\"guestName\": \"Eve\\u001b[2J\\u0007\\u007f!\",");

        // out and err are regular expressions matched against the whole stream.
        QTest::newRow("ping") << QStringList{"ping", "URL"} << 0
                              << "pong from wss://127\\.0\\.0\\.1:\\d+: \\d+\\.\\d\\d ms\n" << "";
        QTest::newRow("clients table") << QStringList{"clients", "URL"} + zed << 0
                                       << QRegularExpression::escape(table) << "";
        QTest::newRow("clients json") << QStringList{"clients", "URL", "--json", "--name", "Zed <3", "--session", SessionB}
                                      << 0 << QRegularExpression::escape(json) << "";
        QTest::newRow("clients table, control characters") << QStringList{"clients", "URL"} + eve << 0
                                                           << QRegularExpression::escape(eveTable) << "";
        QTest::newRow("clients json, control characters") << QStringList{"clients", "URL", "--json"} + eve << 0
                                                          << "(.|\n)*" + QRegularExpression::escape(eveJson) + "(.|\n)*"
                                                          << "";
        QTest::newRow("version") << QStringList{"--version"} << 0 << "tarn " TARN_VERSION "\n" << "";
        QTest::newRow("malformed url") << QStringList{"ping", "http://x"} << 2 << ""
                                       << "tarn: 'http://x' is not a server URL; expected wss://HOST:PORT\n";
        QTest::newRow("url without port") << QStringList{"clients", "wss://127.0.0.1"} << 2 << ""
                                          << "tarn: 'wss://127\\.0\\.0\\.1' is not a server URL; expected wss://HOST:PORT\n";
        QTest::newRow("unreachable") << QStringList{"ping", "wss://127.0.0.1:CLOSED"} << 1 << ""
                                     << "tarn: cannot connect to wss://127\\.0\\.0\\.1:\\d+\n";
        QTest::newRow("bad session") << QStringList{"clients", "URL", "--session", "nope"} << 2 << ""
                                     << "tarn: 'nope' is not a session UUID\n";
        QTest::newRow("unknown command") << QStringList{"frobnicate"} << 2 << ""
                                         << "tarn: unknown command 'frobnicate'; see tarn --help\n";
        QTest::newRow("no command") << QStringList{} << 2 << "" << "tarn: no command given; see tarn --help\n";
        QTest::newRow("discover with url") << QStringList{"discover", "URL"} << 2 << ""
                                           << "tarn: discover takes no URL\n";
    }

    void commands()
    {
        QFETCH(QStringList, args);
        QFETCH(int, exitCode);
        QFETCH(QString, out);
        QFETCH(QString, err);

        QProcess tool;
        QSignalSpy finished(&tool, qOverload<int, QProcess::ExitStatus>(&QProcess::finished));
        StartTool(tool, args);
        QVERIFY(finished.wait(10000));
        const QString stdOut = QString::fromUtf8(tool.readAllStandardOutput());
        const QString stdErr = QString::fromUtf8(tool.readAllStandardError());
        QVERIFY2(QRegularExpression(QRegularExpression::anchoredPattern(out)).match(stdOut).hasMatch(),
                 qPrintable(stdOut));
        QVERIFY2(QRegularExpression(QRegularExpression::anchoredPattern(err)).match(stdErr).hasMatch(),
                 qPrintable(stdErr));
        QCOMPARE(tool.exitStatus(), QProcess::NormalExit);
        QCOMPARE(tool.exitCode(), exitCode);
    }

    void watchReportsChangesAndLoss()
    {
        QProcess tool;
        QSignalSpy finished(&tool, qOverload<int, QProcess::ExitStatus>(&QProcess::finished));
        StartTool(tool, {QStringLiteral("watch"), url, QStringLiteral("--interval"), QStringLiteral("100"),
                         QStringLiteral("--name"), QStringLiteral("Wes"), QStringLiteral("--session"), SessionB});
        QString seen;
        auto waitFor = [&](const QString &pattern) {
            const QRegularExpression re(pattern, QRegularExpression::MultilineOption);
            QTRY_VERIFY_WITH_TIMEOUT((seen += QString::fromUtf8(tool.readAllStandardOutput()), re.match(seen).hasMatch()),
                                     5000);
        };
        const QString stamp = QStringLiteral("^\\d\\d:\\d\\d:\\d\\d ");
        waitFor(QStringLiteral("^watching ") + QRegularExpression::escape(url) + QLatin1Char('$'));
        waitFor(stamp + QStringLiteral("\\+ Ann ") + QRegularExpression::escape(SessionA) + QLatin1Char('$'));
        waitFor(stamp + QStringLiteral("\\+ Wes ") + QRegularExpression::escape(SessionB) + QLatin1Char('$'));

        const QString sessionC = QStringLiteral("{cccccccc-0000-0000-0000-000000000003}");
        ClientRecord beaRecord = Record(sessionC, QStringLiteral("Bea"));
        auto bea = std::make_unique<TarnClt>();
        QVERIFY(bea->Open(QUrl(url), &beaRecord));
        waitFor(stamp + QStringLiteral("\\+ Bea ") + QRegularExpression::escape(sessionC) + QLatin1Char('$'));
        bea.reset();
        waitFor(stamp + QStringLiteral("- Bea ") + QRegularExpression::escape(sessionC) + QLatin1Char('$'));

        // Stop gives the sockets to deferred deletion; qWait inside QTRY runs it.
        server->Stop();
        QTRY_VERIFY_WITH_TIMEOUT(finished.count() > 0, 5000);
        QCOMPARE(tool.exitCode(), 1);
        QCOMPARE(QString::fromUtf8(tool.readAllStandardError()),
                 QStringLiteral("tarn: connection to %1 lost\n").arg(url));
    }

private:
    void StartTool(QProcess &tool, QStringList args);

    std::unique_ptr<TarnSrv> server;
    std::unique_ptr<TarnClt> ann;
    ClientRecord annRecord = Record(SessionA, QStringLiteral("Ann"));
    QString url;
};

void TestTarnTool::StartTool(QProcess &tool, QStringList args)
{
    args.replaceInStrings(QStringLiteral("URL"), url);
    args.replaceInStrings(QStringLiteral("CLOSED"), QString::number(FreePort()));
    // Output beyond ASCII (U+FFFD for unsafe characters) comes as UTF-8 whatever the locale.
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("LC_ALL"), QStringLiteral("C.UTF-8"));
    tool.setProcessEnvironment(env);
    tool.start(QStringLiteral(TARN_TOOL_PATH), args);
    QVERIFY(tool.waitForStarted());
}

QTEST_MAIN(TestTarnTool)
#include "tst_tarntool.moc"
