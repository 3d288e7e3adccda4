#include "../testsupport.h"
#include "fingerprintprobe.h"
#include "knownservers.h"
#include "tarnclt.h"
#include "tarnsrv.h"
#include "tarntool.h"

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
        QVERIFY(config.isValid());
        known = config.path() + QStringLiteral("/tarn/known_servers");
    }

    // The tool knows the server already, unless a test says otherwise.
    void init() { QVERIFY(WriteKnown(QStringLiteral("@KEY@ @FP@\n"))); }

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

        // ESC, BEL and DEL: a terminal acts on each instead of showing it.
        const QStringList eve{QStringLiteral("--name"), QStringLiteral("Eve\x1b[2J\x07\x7f!"),
                              QStringLiteral("--session"), SessionB};
        const QString eveTable = QStringLiteral("GUEST NAME  SESSION\n"
                                                "Ann         %1\n"
                                                "Eve\ufffd[2J\ufffd\ufffd!  %2\n")
                                     .arg(SessionA, SessionB);
        const QString eveJson = QStringLiteral("[\n"
                                               "    {\n"
                                               "        \"guestName\": \"Ann\",\n"
                                               "        \"sessionUuid\": \"%1\"\n"
                                               "    },\n"
                                               "    {\n"
                                               "        \"guestName\": \"Eve\\u001b[2J\\u0007\\u007f!\",\n"
                                               "        \"sessionUuid\": \"%2\"\n"
                                               "    }\n"
                                               "]\n").arg(SessionA, SessionB);

        // out and err are regular expressions matched against the whole stream.
        QTest::newRow("ping") << QStringList{"ping", "URL"} << 0
                              << "pong from wss://127\\.0\\.0\\.1:\\d+: \\d+\\.\\d\\d ms\n" << "";
        QTest::newRow("clients table, control characters") << QStringList{"clients", "URL"} + eve << 0
                                                           << QRegularExpression::escape(eveTable) << "";
        QTest::newRow("clients json, control characters") << QStringList{"clients", "URL", "--json"} + eve << 0
                                                          << QRegularExpression::escape(eveJson) << "";
        QTest::newRow("version") << QStringList{"--version"} << 0 << "tarn " TARN_VERSION "\n" << "";
        QTest::newRow("malformed url") << QStringList{"ping", "http://x"} << 2 << ""
                                       << "tarn: 'http://x' is not a server URL; expected wss://HOST:PORT\n";
        QTest::newRow("unreachable") << QStringList{"ping", "wss://127.0.0.1:CLOSED"} << 1 << ""
                                     << "tarn: cannot connect to wss://127\\.0\\.0\\.1:\\d+: Connection refused\n";
        QTest::newRow("bad session") << QStringList{"clients", "URL", "--session", "nope"} << 2 << ""
                                     << "tarn: 'nope' is not a session UUID\n";
        QTest::newRow("unknown command") << QStringList{"frobnicate"} << 2 << ""
                                         << "tarn: unknown command 'frobnicate'; see tarn --help\n";
        QTest::newRow("no command") << QStringList{} << 2 << "" << "tarn: no command given; see tarn --help\n";
        QTest::newRow("discover with url") << QStringList{"discover", "URL"} << 2 << ""
                                           << "tarn: discover takes no URL\n";
        QTest::newRow("accept and insecure") << QStringList{"ping", "URL", "--accept-new-key", "--insecure"} << 2
                                             << "" << "tarn: --accept-new-key and --insecure exclude each other\n";
    }

    void commands()
    {
        QFETCH(QStringList, args);
        QFETCH(int, exitCode);
        QFETCH(QString, out);
        QFETCH(QString, err);

        RunTool(args, exitCode, out, err);
    }

    void pinning_data()
    {
        QTest::addColumn<QString>("knownBefore"); // empty: no file, nor its folder
        QTest::addColumn<QStringList>("options");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QString>("err");
        QTest::addColumn<QString>("knownAfter"); // "=": as before

        // @KEY@ is the server's host:port, @FP@ the fingerprint it presents, @OTHER@ another one.
        const QString trusted = QStringLiteral("tarn: it is trusted from now on \\(recorded in @PATH@\\)\n");
        const QString fingerprints = QStringLiteral("  recorded SHA-256 fingerprint:  @OTHER@\n"
                                                    "  presented SHA-256 fingerprint: @FP@\n");
        QTest::newRow("first use records") << "" << QStringList() << 0
                                           << "tarn: first contact with @KEY@, whose certificate has the SHA-256 "
                                              "fingerprint\n  @FP@\n" + trusted
                                           << "# Servers the tarn tool trusts: host:port and the SHA-256 "
                                              "fingerprint of its certificate.\n@KEY@ @FP@\n";
        QTest::newRow("match, in another case, after lines to skip")
            << "# mine\n\n@KEY@ @OTHER@ extra\n@KEY@ AB:CD\n@KEY@ @fp@\n@KEY@ @OTHER@\n" << QStringList() << 0 << "" << "=";
        QTest::newRow("mismatch refused before anything is sent")
            << "@KEY@ @OTHER@\n" << QStringList() << 1
            << "tarn: @KEY@ presents a different certificate from the one recorded; refusing to connect\n"
                   + fingerprints + "(.|\n)*--accept-new-key,\nor edit @PATH@\n"
            << "=";
        QTest::newRow("new key accepted") << "# mine\n@KEY@ @OTHER@\nelsewhere:1 @OTHER@\n"
                                          << QStringList{"--accept-new-key"} << 0
                                          << "tarn: --accept-new-key: replacing the certificate recorded for @KEY@\n"
                                                 + fingerprints + trusted
                                          << "# mine\n@KEY@ @FP@\nelsewhere:1 @OTHER@\n";
        QTest::newRow("insecure skips the check") << "@KEY@ @OTHER@\n" << QStringList{"--insecure"} << 0
                                                  << "tarn: --insecure: the server's certificate is not checked; "
                                                     "anyone on the way could pose as it\n"
                                                  << "=";
        QTest::newRow("file too large") << QString(int(KnownServers::MaxFileSize) + 1, QLatin1Char('#'))
                                        << QStringList() << 1
                                        << "tarn: cannot use the known servers: @PATH@ is larger than 1048576 "
                                           "bytes; --insecure skips the check\n"
                                        << "=";
    }

    // Trust on first use: a changed certificate stops the tool in the TLS
    // handshake, so the server never sees the guest or a message. The tool
    // reaches the server exactly when it succeeds.
    void pinning()
    {
        QFETCH(QString, knownBefore);
        QFETCH(QStringList, options);
        QFETCH(int, exitCode);
        QFETCH(QString, err);
        QFETCH(QString, knownAfter);
        const bool reachesServer = exitCode == 0;

        QVERIFY(QDir(config.path() + QStringLiteral("/tarn")).removeRecursively());
        QVERIFY(knownBefore.isEmpty() || WriteKnown(knownBefore));
        const QByteArray before = FileBytes(known);
        QSignalSpy changed(server.get(), &TarnSrv::ClientsChanged);
        RunTool(QStringList{"ping", "URL"} + options, exitCode, reachesServer ? "pong from .*\n" : "",
                Substituted(err, true));
        QCOMPARE(FileBytes(known), knownAfter == "=" ? before : Substituted(knownAfter).toUtf8());
        QTest::qWait(100);
        QCOMPARE(changed.isEmpty(), !reachesServer);
        QCOMPARE(server->GetActiveClients().size(), 1);
    }

    // What discover shows: a server that accepts the connection but never
    // answers the handshake costs the probe's time limit, not more.
    void probeFingerprints()
    {
        QTcpServer silent;
        QVERIFY(silent.listen(QHostAddress::LocalHost));
        const QList<QUrl> urls{QUrl(url), LocalUrl(silent.serverPort()), LocalUrl(FreePort())};
        QCOMPARE(Tarn::ProbeFingerprints(urls, 1000), QStringList({server->Fingerprint(), QString(), QString()}));
    }

    // Who left, in the old order, and who joined, in the new. A name under
    // another session is another client; a client listed twice that stays is no change.
    void diffClients()
    {
        const auto client = [](const char *name, int session) {
            return ActiveClient{QString::fromLatin1(name), QUuid(session, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0)};
        };
        const QList<ActiveClient> before{client("Ann", 1), client("Bea", 2), client("Cy", 3), client("Cy", 3)};
        const QList<ActiveClient> after{client("Cy", 3), client("Dan", 4), client("Bea", 5)};
        const ClientChanges changes = DiffClients(before, after);
        QCOMPARE(changes.left, (QList<ActiveClient>{client("Ann", 1), client("Bea", 2)}));
        QCOMPARE(changes.joined, (QList<ActiveClient>{client("Dan", 4), client("Bea", 5)}));
    }

    // Figures only: the diff of two lists with no entry in common, at twice the size.
    void diffClientsCost()
    {
        for (const int size : {30000, 60000}) {
            QList<ActiveClient> before, after;
            for (int i = 0; i < size; ++i) {
                before.append({QStringLiteral("guest %1").arg(i), QUuid::createUuid()});
                after.append({QStringLiteral("guest %1").arg(i), QUuid::createUuid()});
            }
            QElapsedTimer timer;
            timer.start();
            const ClientChanges changes = DiffClients(before, after);
            qInfo("%d entries each: %lld ms", size, timer.elapsed());
            QCOMPARE(changes.left.size(), size);
        }
    }

    void watchReportsChangesAndLoss()
    {
        QProcess tool;
        QSignalSpy finished(&tool, qOverload<int, QProcess::ExitStatus>(&QProcess::finished));
        StartTool(tool, {QStringLiteral("watch"), url, QStringLiteral("--interval"), QStringLiteral("100"),
                         QStringLiteral("--name"), QStringLiteral("Wes"), QStringLiteral("--session"), SessionB});
        QString seen;
        // A whole line of the output: "watching URL", or a stamped "+" or "-" with a name and session.
        auto waitFor = [&](const QString &line, bool stamped = true) {
            const QRegularExpression re((stamped ? "^\\d\\d:\\d\\d:\\d\\d " : "^") + QRegularExpression::escape(line) + '$',
                                        QRegularExpression::MultilineOption);
            QTRY_VERIFY_WITH_TIMEOUT((seen += QString::fromUtf8(tool.readAllStandardOutput()), re.match(seen).hasMatch()),
                                     5000);
        };
        waitFor("watching " + url, false);
        waitFor("+ Ann " + SessionA);
        waitFor("+ Wes " + SessionB);

        const QString sessionC = QStringLiteral("{cccccccc-0000-0000-0000-000000000003}");
        ClientRecord beaRecord = Record(sessionC, QStringLiteral("Bea"));
        auto bea = std::make_unique<TarnClt>();
        QVERIFY(bea->Open(QUrl(url), &beaRecord));
        waitFor("+ Bea " + sessionC);
        bea.reset();
        waitFor("- Bea " + sessionC);

        // Stop gives the sockets to deferred deletion; qWait inside QTRY runs it.
        server->Stop();
        QTRY_VERIFY_WITH_TIMEOUT(finished.count() > 0, 5000);
        QCOMPARE(tool.exitCode(), 1);
        QCOMPARE(QString::fromUtf8(tool.readAllStandardError()),
                 QStringLiteral("tarn: connection to %1 lost\n").arg(url));
    }

private:
    void RunTool(const QStringList &args, int exitCode, const QString &out, const QString &err)
    {
        QProcess tool;
        QSignalSpy finished(&tool, qOverload<int, QProcess::ExitStatus>(&QProcess::finished));
        StartTool(tool, args);
        QVERIFY(finished.wait(10000));
        const QString stdOut = QString::fromUtf8(tool.readAllStandardOutput());
        const QString stdErr = QString::fromUtf8(tool.readAllStandardError());
        QVERIFY2(QRegularExpression(QRegularExpression::anchoredPattern(out)).match(stdOut).hasMatch(), qPrintable(stdOut));
        QVERIFY2(QRegularExpression(QRegularExpression::anchoredPattern(err)).match(stdErr).hasMatch(), qPrintable(stdErr));
        QCOMPARE(tool.exitStatus(), QProcess::NormalExit);
        QCOMPARE(tool.exitCode(), exitCode);
    }

    QString Substituted(QString text, bool pattern = false) const
    {
        const QString fingerprint = server->Fingerprint();
        const QList<QPair<QString, QString>> values{
            {QStringLiteral("@KEY@"), KnownServers::Key(QUrl(url))},
            {QStringLiteral("@FP@"), fingerprint},
            {QStringLiteral("@fp@"), fingerprint.toLower()},
            {QStringLiteral("@OTHER@"), QStringLiteral("00:").repeated(31) + QStringLiteral("00")},
            {QStringLiteral("@PATH@"), known}};
        for (const auto &value : values)
            text.replace(value.first, pattern ? QRegularExpression::escape(value.second) : value.second);
        return text;
    }

    bool WriteKnown(const QString &text) const
    {
        return QDir().mkpath(QFileInfo(known).path()) && WriteFile(known, Substituted(text).toUtf8());
    }

    void StartTool(QProcess &tool, QStringList args)
    {
        args.replaceInStrings(QStringLiteral("URL"), url);
        args.replaceInStrings(QStringLiteral("CLOSED"), QString::number(FreePort()));
        // Output beyond ASCII (U+FFFD for unsafe characters) comes as UTF-8 whatever the locale.
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("LC_ALL"), QStringLiteral("C.UTF-8"));
        env.insert(QStringLiteral("XDG_CONFIG_HOME"), config.path());
        tool.setProcessEnvironment(env);
        tool.start(QStringLiteral(TARN_TOOL_PATH), args);
        QVERIFY(tool.waitForStarted());
    }


    std::unique_ptr<TarnSrv> server;
    std::unique_ptr<TarnClt> ann;
    ClientRecord annRecord = Record(SessionA, QStringLiteral("Ann"));
    QString url;
    QTemporaryDir config;
    QString known;
};

QTEST_MAIN(TestTarnTool)
#include "tst_tarntool.moc"
