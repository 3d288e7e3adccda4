#include "../testsupport.h"
#include "proctools.h"
#include "scmtools.h"
#include "qtservice.h"
#include "scmapi.h"

#include <QElapsedTimer>
#include <QScopeGuard>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QtTest>

#include <sys/stat.h>
#include <unistd.h>

// The real TarnSvc host, run from a copy in a directory with a space in its
// path, against the substitute control manager.
class TestTarnSvc : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QVERIFY(temp.isValid());
        qputenv("TARN_SCM_ROOT", temp.filePath(QStringLiteral("scm")).toLocal8Bit());
        // The manager child keeps its settings and its single-instance lock here,
        // away from the user's and from a manager running on the machine.
        qputenv("XDG_CONFIG_HOME", temp.filePath(QStringLiteral("config")).toLocal8Bit());
        qputenv("TARN_INSTANCE_LOCK", temp.filePath(QStringLiteral("instance.lock")).toLocal8Bit());
        // -i refuses a folder or program that others can write: what the test
        // makes is its own, whatever the umask and the build folder's modes.
        ::umask(022);
        host = copyHost(temp.filePath(QStringLiteral("svc host")));
        QVERIFY(copyProgram(QStringLiteral(TARNSRV_PATH), temp.filePath(QStringLiteral("svc host/TarnSrv"))));
        QVERIFY(resolveScmFunctions());
    }

    void cleanup()
    {
        killAll(host);
        killAll(QFileInfo(host).absolutePath() + QLatin1String("/TarnSrv"));
        QtServiceController(name).uninstall();
    }

    void notInstalled_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<QByteArray>("err");
        QTest::addColumn<int>("code");

        // -v and -u on a missing service: tst_qtservice's unusableDatabase, installTwiceAndUninstallTwice.
        QTest::newRow("-t") << QStringList{"-t"}
                            << QByteArray("The service could not be stopped. (The named service does not exist as an installed service.)\n") << 0;
        QTest::newRow("--install is no option") << QStringList{"--install"} << QByteArray("The service TarnSvc could not start\n") << 252;
    }

    void notInstalled()
    {
        QFETCH(QStringList, args);
        QFETCH(QByteArray, err);
        QFETCH(int, code);

        const Result r = run(args);
        QCOMPARE(r.out, QByteArray());
        QCOMPARE(r.err, err);
        QCOMPARE(r.code, code);
        QVERIFY(!QtServiceController(name).isInstalled());
    }

    void installTwiceAndUninstallTwice_data()
    {
        QTest::addColumn<QString>("folder"); // empty: the host in "svc host"

        QTest::newRow("path with a space") << QString();
        // Longer than Windows' MAX_PATH of 260 characters.
        const QString part(100, QLatin1Char('d'));
        QTest::newRow("path over 259 characters") << part + QLatin1Char('/') + part + QLatin1Char('/') + part;
    }

    void installTwiceAndUninstallTwice()
    {
        QFETCH(QString, folder);
        const QString program = folder.isEmpty() ? host : copyHost(temp.filePath(folder));
        const auto runWith = [this, &program](const QString &option) { return run({option}, program); };

        Result r = runWith(QStringLiteral("-i"));
        QCOMPARE(r.out, "The service TarnSvc has been installed under: " + program.toLatin1() + "\n");
        QCOMPARE(r.code, 0);
        QtServiceController controller(name);
        QCOMPARE(controller.serviceFilePath(), program);
        // Quoted: an unquoted path with spaces can be taken for a shorter program.
        DWORD type = 0;
        QString binaryPath;
        config(&type, &binaryPath);
        QCOMPARE(binaryPath, QLatin1Char('"') + program + QLatin1Char('"'));
        QCOMPARE(controller.serviceDescription(), QStringLiteral("VARNOK Server"));
        QCOMPARE(controller.startupType(), QtServiceController::ManualStartup);

        r = runWith(QStringLiteral("-install"));
        QCOMPARE(r.out, QByteArray());
        QCOMPARE(r.err, QByteArray("The service TarnSvc is already installed\n"));
        QCOMPARE(r.code, 0);

        r = runWith(QStringLiteral("-version"));
        QCOMPARE(r.out, "The service\n\tTarnSvc\n\t" + program.toLatin1() + "\n\nis installed and not running\n\n");

        r = runWith(QStringLiteral("-u"));
        QCOMPARE(r.out, QByteArray("The service TarnSvc has been uninstalled.\n"));
        QCOMPARE(r.code, 0);
        r = runWith(QStringLiteral("-uninstall"));
        QCOMPARE(r.err, QByteArray("The service TarnSvc is not installed\n"));
        QCOMPARE(r.code, 0);
    }

    void installAccounts_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<QString>("account");

        QTest::newRow("bare user gets the local prefix") << QStringList{"-i", "someuser", "secret"} << ".\\someuser";
        QTest::newRow("account with a backslash kept") << QStringList{"-i", "NT SERVICE\\TarnSvc"} << "NT SERVICE\\TarnSvc";
        QTest::newRow("LocalSystem") << QStringList{"-i", "LocalSystem"} << "LocalSystem";
        QTest::newRow("prefixed LocalSystem") << QStringList{"-i", "NT AUTHORITY\\LocalSystem"} << "LocalSystem";
        QTest::newRow("localsystem is a user name") << QStringList{"-i", "localsystem"} << ".\\localsystem";
    }

    void installAccounts()
    {
        QFETCH(QStringList, args);
        QFETCH(QString, account);

        QCOMPARE(run(args).code, 0);
        DWORD type = 0;
        QCOMPARE(config(&type), account);
        // Own process whatever the account: no interactive flag.
        QCOMPARE(type, DWORD(Scm::OwnProcess));
    }

    void installRefusesWhatOthersCanChange_data()
    {
        QTest::addColumn<QString>("file"); // in the host's folder; empty: the folder
        QTest::addColumn<int>("mode");
        QTest::addColumn<uint>("owner"); // 0: the caller's
        QTest::addColumn<QString>("reason");

        // A 0644 configuration beside the host is installed over in keepsManagerRunning.
        QTest::newRow("folder writable by its group") << QString() << 0775 << 0u << "writable by its group";
        QTest::newRow("TarnSvc writable by every user") << "TarnSvc" << 0757 << 0u << "writable by every user";
        QTest::newRow("TarnSrv owned by nobody") << "TarnSrv" << 0755 << 65534u << "owned by user 65534";
        QTest::newRow("TarnSrv.cfg writable by every user") << "TarnSrv.cfg" << 0646 << 0u << "writable by every user";
    }

    // The service runs what is in the host's folder with its account's rights:
    // -i refuses a folder, program or configuration that others can change.
    void installRefusesWhatOthersCanChange()
    {
        QFETCH(QString, file);
        QFETCH(int, mode);
        QFETCH(uint, owner);
        QFETCH(QString, reason);
        if (owner && ::geteuid() != 0)
            QSKIP("giving a file to another user needs root");

        const QString dir = temp.filePath(QStringLiteral("guarded/%1").arg(QTest::currentDataTag()));
        const QString guardedHost = copyHost(dir);
        QVERIFY(copyProgram(QStringLiteral(TARNSRV_PATH), dir + QLatin1String("/TarnSrv")));
        QVERIFY(testsupport::WriteFile(dir + QLatin1String("/TarnSrv.cfg"), QByteArray()));
        const QString target = file.isEmpty() ? dir : dir + QLatin1Char('/') + file;
        const QByteArray native = QFile::encodeName(target);
        QCOMPARE(::chmod(native.constData(), mode_t(mode)), 0);
        if (owner)
            QCOMPARE(::chown(native.constData(), owner, gid_t(-1)), 0);

        const Result r = run({QStringLiteral("-i")}, guardedHost);
        QCOMPARE(r.err, QStringLiteral("The service TarnSvc was not installed: other users can change %1 (%2)\n")
                            .arg(target, reason).toLocal8Bit());
        QCOMPARE(r.out, QByteArray());
        QCOMPARE(r.code, 255);
        QVERIFY(!QtServiceController(name).isInstalled());
    }

    // Restarts at once twice, then after a minute, the count reset after a day,
    // also after a stop with an error code; an automatic start waits.
    void installRegistersRecovery()
    {
        QCOMPARE(run({QStringLiteral("-i")}).code, 0);
        std::vector<quint64> buffer(128);
        QVERIFY(queryConfig(Scm::FailureActionsLevel, buffer));
        const auto *failure = reinterpret_cast<const SERVICE_FAILURE_ACTIONSW *>(buffer.data());
        QCOMPARE(failure->dwResetPeriod, DWORD(86400));
        QList<QPair<int, DWORD>> actions;
        for (DWORD i = 0; i < failure->cActions; ++i)
            actions.append({failure->lpsaActions[i].Type, failure->lpsaActions[i].Delay});
        QCOMPARE(actions, (QList<QPair<int, DWORD>>{{SC_ACTION_RESTART, 0}, {SC_ACTION_RESTART, 0}, {SC_ACTION_RESTART, 60000}}));
        QVERIFY(queryConfig(Scm::FailureActionsFlagLevel, buffer));
        QCOMPARE(reinterpret_cast<const SERVICE_FAILURE_ACTIONS_FLAG *>(buffer.data())->fFailureActionsOnNonCrashFailures, 1);
        QVERIFY(queryConfig(Scm::DelayedAutoStartLevel, buffer));
        QCOMPARE(reinterpret_cast<const SERVICE_DELAYED_AUTO_START_INFO *>(buffer.data())->fDelayedAutostart, 1);
    }

    void unknownOptionBecomesStartArgument()
    {
        QCOMPARE(run({QStringLiteral("-i")}).code, 0);
        const Result r = run({QStringLiteral("-I"), QStringLiteral("ignored?")});
        QCOMPARE(r.err, QByteArray());
        QCOMPARE(r.code, 0);
        QVERIFY(waitForServiceState(name, Scm::StateRunning));

        const QList<qint64> hosts = processesOf(host);
        QCOMPARE(hosts.size(), 1);
        QFile cmdline(QStringLiteral("/proc/%1/cmdline").arg(hosts.first()));
        QVERIFY(cmdline.open(QIODevice::ReadOnly));
        QCOMPARE(cmdline.readAll().split('\0').mid(1, 3), (QList<QByteArray>{"TarnSvc", "-I", "ignored?"}));
    }

    void keepsManagerRunning()
    {
        const quint16 port = testsupport::FreePort();
        const QString cfgPath = QFileInfo(host).absolutePath() + QLatin1String("/TarnSrv.cfg");
        QVERIFY(testsupport::WriteFile(
            cfgPath, QStringLiteral("PortNr = %1\nLoggingFolder = %2\n").arg(port).arg(temp.filePath(QStringLiteral("logs"))).toUtf8()));
        QDir().mkpath(temp.filePath(QStringLiteral("logs")));
        // No display at all: the child must still serve (it runs headless).
        for (const char *var : {"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM"})
            qunsetenv(var);
        const QString child = QFileInfo(host).absolutePath() + QLatin1String("/TarnSrv");

        QCOMPARE(run({QStringLiteral("-i")}).code, 0);
        QCOMPARE(run({}).code, 0);
        QVERIFY(waitForServiceState(name, Scm::StateRunning));
        QTRY_COMPARE_WITH_TIMEOUT(processesOf(child).size(), 1, 5000);
        const qint64 childPid = processesOf(child).first();

        const QStringList ping = {QStringLiteral("ping"), QStringLiteral("wss://127.0.0.1:%1").arg(port)};
        QTRY_COMPARE_WITH_TIMEOUT(run(ping, QStringLiteral(TARN_TOOL_PATH)).code, 0, 10000);
        QCOMPARE(run({QStringLiteral("-v")}).out,
                 "The service\n\tTarnSvc\n\t" + host.toLatin1() + "\n\nis installed and running\n\n");

        const QList<QPair<QString, DWORD>> steps = {
            {QStringLiteral("-p"), Scm::StatePaused}, {QStringLiteral("-r"), Scm::StateRunning},
            {QStringLiteral("-c"), Scm::StateRunning}};
        for (const auto &step : steps) {
            const Result r = run({step.first, QStringLiteral("5")});
            QCOMPARE(r.code, 0);
            QCOMPARE(r.out + r.err, QByteArray());
            QCOMPARE(serviceState(name), step.second);
            QCOMPARE(processesOf(child), QList<qint64>{childPid});
        }

        // A manager killed outright is started again and serves, within 10 s.
        const int earlierWarnings = eventLog("Warning").size();
        QElapsedTimer sinceKill;
        sinceKill.start();
        QCOMPARE(::kill(pid_t(childPid), SIGKILL), 0);
        QTRY_VERIFY_WITH_TIMEOUT(!processesOf(child).isEmpty() && processesOf(child).first() != childPid, 5000);
        qInfo("From SIGKILL to a new manager process: %lld ms", sinceKill.elapsed());
        // Polled by connecting first: a ping at a closed port waits out its connect time.
        const auto listening = [port] {
            QTcpSocket socket;
            socket.connectToHost(QHostAddress::LocalHost, port);
            return socket.waitForConnected(200);
        };
        QTRY_VERIFY_WITH_TIMEOUT(listening(), 10000);
        QCOMPARE(run(ping, QStringLiteral(TARN_TOOL_PATH)).code, 0);
        qInfo("From SIGKILL to a new manager answering ping: %lld ms", sinceKill.elapsed());
        const QStringList warnings = eventLog("Warning").mid(earlierWarnings);
        QCOMPARE(warnings.size(), 1);
        QVERIFY2(warnings.first().startsWith(QLatin1String("The manager TarnSrv was killed by signal 9 (Killed) after "))
                     && warnings.first().endsWith(QLatin1String("; it is started again in 1 s")),
                 qPrintable(warnings.first()));
        QCOMPARE(serviceState(name), DWORD(Scm::StateRunning));

        const Result r = run({QStringLiteral("-t")});
        QCOMPARE(r.code, 0);
        QCOMPARE(r.err, QByteArray());
        QCOMPARE(serviceState(name), DWORD(Scm::StateStopped));
        QTRY_VERIFY_WITH_TIMEOUT(processesOf(child).isEmpty(), 5000);
        QCOMPARE(eventLog("Warning").size(), earlierWarnings + 1);
        // Asked to close, not killed: the manager let its clients go and logged its end.
        const QByteArray log = testsupport::FileBytes(temp.filePath(QStringLiteral("logs/TarnSrvSvc.html")));
        QVERIFY2(log.contains("Tarn server stopped.") && log.contains("VARNOK Server closed."), log.right(300).constData());
        QFile::remove(cfgPath);
    }

    // A manager that ends at once every time: a stop during the back-off is a
    // clean stop; left alone, the service gives up after 1, 2, 4 and 8 s of
    // back-off and stops with a service-specific error.
    void managerThatKeepsFailing()
    {
        const QString dir = temp.filePath(QStringLiteral("failing"));
        const QString failingHost = hostBesideChildScript(dir, "date +%s%N >> \"$(dirname \"$0\")/starts\"\nexit 1\n");
        const auto starts = [&dir] { return testsupport::FirstNumbers(dir + QLatin1String("/starts")); };
        auto killHost = qScopeGuard([&failingHost] { killAll(failingHost); });
        QCOMPARE(run({QStringLiteral("-i")}, failingHost).code, 0);

        const int warningsAtFirstStart = eventLog("Warning").size();
        QCOMPARE(run({}, failingHost).code, 0);
        QTRY_VERIFY_WITH_TIMEOUT(eventLog("Warning").size() > warningsAtFirstStart, 5000);
        QCOMPARE(run({QStringLiteral("-t")}, failingHost).code, 0);
        QCOMPARE(serviceState(name), DWORD(Scm::StateStopped));
        SERVICE_STATUS status = {};
        QVERIFY(queryServiceStatus(name, &status));
        QCOMPARE(status.dwWin32ExitCode, DWORD(0)); // that the stop starts nothing more: tst_managersupervisor
        QTRY_VERIFY(processesOf(failingHost).isEmpty());

        QFile::remove(dir + QLatin1String("/starts"));
        const int warningsAtSecondStart = eventLog("Warning").size();
        const int errorsAtSecondStart = eventLog("Error").size();
        QCOMPARE(run({}, failingHost).code, 0);
        QVERIFY(waitForServiceState(name, Scm::StateStopped, 30000));
        QVERIFY(queryServiceStatus(name, &status));
        QCOMPARE(status.dwWin32ExitCode, DWORD(Scm::ErrorServiceSpecificError));
        QCOMPARE(status.dwServiceSpecificExitCode, DWORD(1));

        // Each gap against its announced delay: tst_managersupervisor.
        QCOMPARE(starts().size(), 5);
        const QStringList warnings = eventLog("Warning").mid(warningsAtSecondStart);
        QCOMPARE(warnings.size(), 4);
        QVERIFY2(warnings.last().startsWith(QLatin1String("The manager TarnSrv ended with exit code 1 after "))
                     && warnings.last().endsWith(QLatin1String("; it is started again in 8 s")),
                 qPrintable(warnings.last()));
        const QStringList errors = eventLog("Error");
        QCOMPARE(errors.size(), errorsAtSecondStart + 1);
        QVERIFY2(errors.last().startsWith(
                     QLatin1String("The manager TarnSrv failed 5 times in a row, the last time it ended with exit code 1 after "))
                     && errors.last().endsWith(QLatin1String("; the service stops")),
                 qPrintable(errors.last()));
        QTRY_VERIFY_WITH_TIMEOUT(processesOf(failingHost).isEmpty(), 5000);
    }

    void childIgnoringTerminationDoesNotOutliveHost()
    {
        const QString dir = temp.filePath(QStringLiteral("stubborn"));
        const QString stubbornHost =
            hostBesideChildScript(dir, "echo $$ > \"$(dirname \"$0\")/child.pid\"\ntrap '' TERM\nwhile :; do sleep 0.1; done\n");

        QCOMPARE(run({QStringLiteral("-i")}, stubbornHost).code, 0);
        QCOMPARE(run({}, stubbornHost).code, 0);
        QVERIFY(waitForServiceState(name, Scm::StateRunning));
        const auto childPid = [&dir] { return pid_t(testsupport::FirstNumbers(dir + QLatin1String("/child.pid")).value(0)); };
        QTRY_VERIFY(childPid() > 0);
        const pid_t pid = childPid();
        QVERIFY(pid > 0 && ::kill(pid, 0) == 0);

        // Killed after the grace period, which a loaded machine may stretch past the controller's wait.
        QCOMPARE(run({QStringLiteral("-t")}, stubbornHost).code, 0);
        QVERIFY(waitForServiceState(name, Scm::StateStopped));
        QTRY_VERIFY_WITH_TIMEOUT(processesOf(stubbornHost).isEmpty(), 5000);
        const bool childGone = ::kill(pid, 0) != 0;
        if (!childGone)
            ::kill(pid, SIGKILL);
        QVERIFY(childGone);
    }

private:
    using Result = RunResult;
    Result run(const QStringList &args, const QString &program = QString())
    {
        return runProgram(program.isEmpty() ? host : program, args);
    }

    // The account of the installed service, with its type and binary path.
    static QString config(DWORD *serviceType, QString *binaryPath = nullptr)
    {
        std::vector<quint64> buffer(1024);
        if (!queryConfig(0, buffer))
            return QString();
        const auto *config = reinterpret_cast<const QUERY_SERVICE_CONFIGW *>(buffer.data());
        *serviceType = config->dwServiceType;
        if (binaryPath)
            *binaryPath = fromWide(config->lpBinaryPathName);
        return fromWide(config->lpServiceStartName);
    }

    // A level of the installed service's configuration (0: QueryServiceConfigW's)
    // into the buffer; false when it cannot be read.
    static bool queryConfig(DWORD level, std::vector<quint64> &buffer)
    {
        ScmFunctions &scm = scmFunctions();
        SC_HANDLE manager = scm.OpenSCManagerW(nullptr, nullptr, Scm::ManagerConnect);
        SC_HANDLE service = manager ? scm.OpenServiceW(manager, u"TarnSvc", Scm::ServiceQueryConfig) : nullptr;
        auto *bytes = reinterpret_cast<LPBYTE>(buffer.data());
        const DWORD size = DWORD(buffer.size() * sizeof(quint64));
        DWORD needed = 0;
        const bool ok = service && (level ? scm.QueryServiceConfig2W(service, level, bytes, size, &needed)
                                          : scm.QueryServiceConfigW(service, reinterpret_cast<LPQUERY_SERVICE_CONFIGW>(bytes), size, &needed));
        if (service)
            scm.CloseServiceHandle(service);
        if (manager)
            scm.CloseServiceHandle(manager);
        return ok;
    }

    QString copyHost(const QString &dir)
    {
        QDir().mkpath(dir);
        const QString path = dir + QLatin1String("/TarnSvc");
        copyProgram(QStringLiteral(TARNSVC_PATH), path);
        return path;
    }

    // A copied host whose "manager" is a shell script.
    QString hostBesideChildScript(const QString &dir, const QByteArray &body)
    {
        const QString program = copyHost(dir);
        const QString child = dir + QLatin1String("/TarnSrv");
        testsupport::WriteFile(child, "#!/bin/sh\n" + body);
        QFile::setPermissions(child, QFile::permissions(child) | QFileDevice::ExeOwner);
        return program;
    }

    // The stand-in's event-log lines of one type ("Warning", "Error") from the service.
    QStringList eventLog(const QByteArray &type) const
    {
        QStringList lines;
        const QList<QByteArray> all = testsupport::FileBytes(temp.filePath(QStringLiteral("scm/eventlog.txt"))).split('\n');
        for (const QByteArray &line : all) {
            if (line.contains(" " + type + " [TarnSvc]"))
                lines.append(QString::fromUtf8(line.mid(line.indexOf(": ") + 2)));
        }
        return lines;
    }

    QTemporaryDir temp;
    QString host;
    const QString name = QStringLiteral("TarnSvc");
};

QTEST_GUILESS_MAIN(TestTarnSvc)
#include "tst_tarnsvc.moc"
