#include "../testsupport.h"
#include "proctools.h"
#include "scmtools.h"
#include "qtservice.h"
#include "scmapi.h"

#include <QElapsedTimer>
#include <QProcess>
#include <QScopeGuard>
#include <QTemporaryDir>
#include <QtEndian>
#include <QtTest>
#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {
class NamedService : public QtService<QCoreApplication>
{
public:
    explicit NamedService(const QString &name) : QtService<QCoreApplication>(0, nullptr, name) {}

protected:
    void start() override {}
};

// Sends a control code to a service's socket from a process of user nobody:
// 0 accepted, 1 refused, 2 no connection.
int controlAsNobody(const QString &dir, const QString &socketName, quint32 code)
{
    const QByteArray folder = QFile::encodeName(dir);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    qstrncpy(address.sun_path, QFile::encodeName(socketName).constData(), sizeof(address.sun_path));
    const quint32 request = qToBigEndian(code);
    const pid_t child = ::fork();
    if (child == 0) {
        ::alarm(10);
        // Connected from inside the folder, so its parents need not be open to nobody.
        const uid_t nobody = 65534;
        const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
        if (::chdir(folder.constData()) != 0 || ::setgroups(0, nullptr) != 0 || ::setgid(nobody) != 0
            || ::setuid(nobody) != 0 || fd < 0
            || ::connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0)
            ::_exit(2);
        quint32 error = 1;
        const bool replied = ::write(fd, &request, sizeof(request)) == sizeof(request)
                             && ::read(fd, &error, sizeof(error)) == sizeof(error);
        ::_exit(replied && error == 0 ? 0 : 1);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}
}

// The framework end to end: a probe service run by the substitute control
// manager in a private database directory.
class TestQtService : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QVERIFY(root.isValid());
        qputenv("TARN_SCM_ROOT", root.path().toLocal8Bit());
        logPath = root.filePath(QStringLiteral("probe.log"));
        // -install refuses a program or folder that others can write, as a build
        // folder made under a group-writable umask is: the probe runs from a copy.
        ::umask(022);
        QVERIFY(QDir(root.path()).mkdir(QStringLiteral("bin")));
        probe = root.filePath(QStringLiteral("bin/svc_probe"));
        QVERIFY(copyProgram(QStringLiteral(SVC_PROBE_PATH), probe));
        qputenv("SVC_PROBE_LOG", logPath.toLocal8Bit());
    }

    void init()
    {
        for (const char *var : {"SVC_PROBE_NAME", "SVC_PROBE_DESCRIPTION", "SVC_PROBE_FLAGS", "SVC_PROBE_AUTO",
                                "SVC_PROBE_START_DELAY", "SVC_PROBE_STOP_DELAY", "SVC_PROBE_COMMAND_DELAY",
                                "SVC_PROBE_ERROR", "SVC_PROBE_ERROR_AT_START"})
            qunsetenv(var);
        QFile::remove(logPath);
    }

    void cleanup()
    {
        killAll(probe);
        qputenv("TARN_SCM_ROOT", root.path().toLocal8Bit());
        const QStringList records = QDir(root.path()).entryList({QStringLiteral("*.svc")});
        for (const QString &record : records)
            QFile::remove(root.filePath(record));
    }

    void nameNormalisation_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("expected");
        QTest::addColumn<QStringList>("warnings");

        const QString longWarning = QStringLiteral("QtService: 'name' is longer than 255 characters.");
        const QString slashWarning = QStringLiteral("QtService: 'name' contains backslashes '\\'.");
        const QString chars255(255, QLatin1Char('y'));
        QTest::newRow("256 characters") << chars255 + QLatin1Char('y') << chars255 << QStringList{longWarning};
        QTest::newRow("backslash becomes U+0000") << "a\\b" << QStringLiteral("a%1b").arg(QChar(0)) << QStringList{slashWarning};
        QTest::newRow("backslash cut off with the tail") << chars255 + QLatin1Char('\\') << chars255 << QStringList{longWarning};
    }

    void nameNormalisation()
    {
        QFETCH(QString, name);
        QFETCH(QString, expected);
        QFETCH(QStringList, warnings);

        for (const QString &warning : warnings)
            QTest::ignoreMessage(QtWarningMsg, qPrintable(warning));
        NamedService service(name);
        QCOMPARE(service.serviceName(), expected);
        QCOMPARE(QtServiceBase::instance(), &service);
    }

    void install_data()
    {
        QTest::addColumn<QString>("service");
        QTest::addColumn<QString>("description");
        QTest::addColumn<bool>("autoStart");
        QTest::addColumn<QString>("account");
        QTest::addColumn<QString>("password");

        QTest::newRow("demand start, no description") << "tst_plain" << QString() << false << QString() << QString();
        QTest::newRow("automatic start with description") << "tst_auto" << "Probe service" << true << QString() << QString();
        QTest::newRow("account and password") << "tst_account" << QString() << false << "someuser" << "s3cret word";
    }

    void install()
    {
        QFETCH(QString, service);
        QFETCH(QString, description);
        QFETCH(bool, autoStart);
        QFETCH(QString, account);
        QFETCH(QString, password);

        qputenv("SVC_PROBE_DESCRIPTION", description.toUtf8());
        if (autoStart)
            qputenv("SVC_PROBE_AUTO", "1");
        qputenv("SVC_PROBE_NAME", service.toUtf8());
        // Installed through a wrapper that notes its command line and stdin: the
        // password must never be on a command line, where every user can read it.
        const QString wrapper = root.filePath(QStringLiteral("wrapper.sh"));
        QVERIFY(testsupport::WriteFile(wrapper, "#!/bin/sh\nprintf '%s\\n' \"$@\" > \"$0.args\"\ntimeout 5 cat > \"$0.stdin\"\nexec \""
                                                    + probe.toUtf8() + "\" \"$@\" < \"$0.stdin\"\n"));
        QVERIFY(QFile::setPermissions(wrapper, QFile::permissions(wrapper) | QFileDevice::ExeOwner));
        QVERIFY(QtServiceController::install(wrapper, account, password));
        QFile args(wrapper + QLatin1String(".args")), input(wrapper + QLatin1String(".stdin"));
        QVERIFY(args.open(QIODevice::ReadOnly) && input.open(QIODevice::ReadOnly));
        QCOMPARE(QString::fromUtf8(args.readAll()), QStringLiteral("-i\n%1\n").arg(account));
        QCOMPARE(QString::fromUtf8(input.readAll()), password + QLatin1Char('\n'));

        QtServiceController controller(service);
        QVERIFY(controller.isInstalled());
        QVERIFY(!controller.isRunning());
        QCOMPARE(controller.serviceFilePath(), QFileInfo(probe).canonicalFilePath());
        QCOMPARE(controller.serviceDescription(), description);
        QCOMPARE(controller.serviceDescription().isNull(), description.isEmpty());
        QCOMPARE(controller.startupType(),
                 autoStart ? QtServiceController::AutoStartup : QtServiceController::ManualStartup);
        QVERIFY(QtServiceController::install(probe)); // already installed still succeeds

        QVERIFY(controller.uninstall());
        QVERIFY(!controller.isInstalled());
        QVERIFY(controller.serviceFilePath().isNull());
        QCOMPARE(controller.startupType(), QtServiceController::ManualStartup); // no configuration to read
        QVERIFY(!QtServiceController::install(root.filePath(QStringLiteral("missing-program"))));
    }

    void lifecycle()
    {
        qputenv("SVC_PROBE_START_DELAY", "800");
        QVERIFY(installProbe(QtServiceBase::CanBeSuspended));
        QtServiceController controller(name);

        QVERIFY(controller.start({QStringLiteral("alpha"), QStringLiteral("beta gamma")}));
        QCOMPARE(serviceState(name), DWORD(Scm::StateStartPending));
        QVERIFY(controller.isRunning());
        QVERIFY(waitForServiceState(name, Scm::StateRunning));
        QCOMPARE(notes(), QStringList{QStringLiteral("start tst_probe|alpha|beta gamma main")});

        SetLastError(0);
        QVERIFY(!controller.start());
        QCOMPARE(GetLastError(), DWORD(1056));

        QVERIFY(controller.pause());
        QCOMPARE(serviceState(name), DWORD(Scm::StatePaused));
        QVERIFY(controller.isRunning());
        QVERIFY(controller.sendCommand(2)); // accepted while paused
        QVERIFY(controller.resume());
        QCOMPARE(serviceState(name), DWORD(Scm::StateRunning));

        QVERIFY(controller.stop());
        QCOMPARE(serviceState(name), DWORD(Scm::StateStopped));
        QVERIFY(!controller.isRunning());
        QCOMPARE(notes().mid(1), (QStringList{QStringLiteral("pause main"), QStringLiteral("enter 2 main"),
                                              QStringLiteral("leave 2 main"), QStringLiteral("resume main"),
                                              QStringLiteral("stop main")}));
        QTRY_VERIFY(processesOf(probe).isEmpty());
    }

    void commandRange_data()
    {
        QTest::addColumn<int>("code");
        QTest::addColumn<bool>("installed");
        QTest::addColumn<bool>("delivered");
        QTest::addColumn<bool>("managerAsked");

        QTest::newRow("0") << 0 << true << true << true;
        QTest::newRow("127") << 127 << true << true << true;
        QTest::newRow("128") << 128 << true << false << false;
        QTest::newRow("-1") << -1 << true << false << false;
        QTest::newRow("service missing") << 5 << false << false << true;
    }

    void commandRange()
    {
        QFETCH(int, code);
        QFETCH(bool, installed);
        QFETCH(bool, delivered);
        QFETCH(bool, managerAsked);

        if (installed)
            QVERIFY(startProbe(0));
        QtServiceController controller(name);
        const DWORD marker = 4242;
        SetLastError(marker);
        QCOMPARE(controller.sendCommand(code), delivered);
        QCOMPARE(GetLastError() != marker, managerAsked && !delivered);
        QCOMPARE(notes().contains(QStringLiteral("enter %1 main").arg(code)), delivered);
    }

    void refusedControls_data()
    {
        QTest::addColumn<int>("flags");
        QTest::addColumn<QString>("operation");

        QTest::newRow("stop, service cannot be stopped") << int(QtServiceBase::CannotBeStopped) << "stop";
        QTest::newRow("pause, service cannot be suspended") << 0 << "pause";
        QTest::newRow("resume, service cannot be suspended") << 0 << "resume";
    }

    void refusedControls()
    {
        QFETCH(int, flags);
        QFETCH(QString, operation);

        QVERIFY(startProbe(flags));
        QtServiceController controller(name);

        bool result = true;
        if (operation == QLatin1String("stop")) {
            QTest::ignoreMessage(QtWarningMsg, "stopping (The requested control is not valid for this service.)");
            result = controller.stop();
        } else {
            result = operation == QLatin1String("pause") ? controller.pause() : controller.resume();
        }
        QVERIFY(!result);
        QCOMPARE(GetLastError(), DWORD(1052));
        QCOMPARE(serviceState(name), DWORD(Scm::StateRunning));
        QCOMPARE(notes().size(), 1);

        QVERIFY(controller.sendCommand(99)); // the probe quits on its own
        QVERIFY(waitForServiceState(name, Scm::StateStopped));
    }

    void stopGivesUpAfterTwoSeconds()
    {
        qputenv("SVC_PROBE_STOP_DELAY", "3000");
        QVERIFY(startProbe(0));
        QtServiceController controller(name);

        QElapsedTimer timer;
        timer.start();
        QVERIFY(!controller.stop());
        QVERIFY2(timer.elapsed() >= 1900 && timer.elapsed() < 2900, qPrintable(QString::number(timer.elapsed())));
        QCOMPARE(serviceState(name), DWORD(Scm::StateStopPending));
        QVERIFY(controller.isRunning());
        QVERIFY(waitForServiceState(name, Scm::StateStopped, 3000));
    }

    void stopWithError_data()
    {
        QTest::addColumn<bool>("asService");
        QTest::addColumn<QByteArray>("code");
        QTest::addColumn<int>("reported"); // service-specific code, or the -e run's exit status

        QTest::newRow("service, code 7") << true << QByteArray("7") << 7;
        QTest::newRow("service, 0 is no failure") << true << QByteArray("0") << 1;
        QTest::newRow("-e, code 7") << false << QByteArray("7") << 7;
    }

    void stopWithError()
    {
        QFETCH(bool, asService);
        QFETCH(QByteArray, code);
        QFETCH(int, reported);
        if (asService) {
            qputenv("SVC_PROBE_ERROR", code);
            QVERIFY(startProbe(0));
            // Command 98 makes the probe fail, from inside a control request.
            QVERIFY(QtServiceController(name).sendCommand(98));
            QVERIFY(waitForServiceState(name, Scm::StateStopped));
            SERVICE_STATUS status = {};
            QVERIFY(queryServiceStatus(name, &status));
            QCOMPARE(status.dwWin32ExitCode, DWORD(Scm::ErrorServiceSpecificError));
            QCOMPARE(status.dwServiceSpecificExitCode, DWORD(reported));
        } else {
            qputenv("SVC_PROBE_ERROR_AT_START", code);
            QCOMPARE(runProgram(probe, {QStringLiteral("-e")}).code, reported);
        }
        QVERIFY2(notes().contains(QStringLiteral("stop main")), qPrintable(notes().join(QLatin1Char(','))));
    }

    void killAndUninstallWhileRunning()
    {
        QVERIFY(startProbe(0));
        QtServiceController controller(name);

        // A service process that dies without reporting reads as stopped, and starts again.
        killAll(probe);
        QVERIFY(waitForServiceState(name, Scm::StateStopped));
        QVERIFY(!controller.isRunning());
        QVERIFY(controller.start());
        QVERIFY(waitForServiceState(name, Scm::StateRunning));

        QVERIFY(controller.uninstall());
        QVERIFY(controller.isInstalled()); // gone only once stopped
        QVERIFY(!controller.start());
        QVERIFY(controller.stop());
        QVERIFY(!controller.isInstalled());
    }

    // Launched for a service the program lacks: the dispatcher fails, and says
    // so once in the event log. From a console, see tst_tarnsvc's notInstalled.
    void dispatcherFailure()
    {
        const QString eventLog = root.filePath(QStringLiteral("eventlog.txt"));
        QFile::remove(eventLog);
        QVERIFY(installProbe(0));
        qputenv("SVC_PROBE_NAME", "tst_other"); // the launched program claims another name
        QVERIFY(!QtServiceController(name).start());
        QCOMPARE(serviceState(name), DWORD(Scm::StateStopped));
        const QString logged = QString::fromUtf8(testsupport::FileBytes(eventLog));
        QVERIFY2(logged.contains(QStringLiteral(
                     "Error [tst_other] id=0 category=0: The Service failed to start [The executable program that "
                     "this service is configured to run in does not implement the service.]"))
                     && logged.count(QLatin1Char('\n')) == 1,
                 qPrintable(logged));
    }

    // Two controller processes at once, then a burst: requests are handled one at
    // a time and none is lost (a lost wake-up would hang a controller).
    void concurrentControllers()
    {
        qputenv("SVC_PROBE_COMMAND_DELAY", "300");
        QVERIFY(startProbe(QtServiceBase::CanBeSuspended));
        QtServiceController controller(name);

        QProcess first, second;
        first.start(probe, {QStringLiteral("-c"), QStringLiteral("5")});
        second.start(probe, {QStringLiteral("-c"), QStringLiteral("6")});
        QVERIFY(first.waitForFinished(5000) && second.waitForFinished(5000));
        QCOMPARE(first.exitCode(), 0);
        QCOMPARE(second.exitCode(), 0);

        QStringList log = notes().mid(1);
        QCOMPARE(log.size(), 4);
        for (int i = 0; i < 4; i += 2) {
            const QString code = log.at(i).section(QLatin1Char(' '), 1, 1);
            QCOMPARE(log.at(i), QStringLiteral("enter %1 main").arg(code));
            QCOMPARE(log.at(i + 1), QStringLiteral("leave %1 main").arg(code));
        }
        QVERIFY(log.contains(QStringLiteral("leave 5 main")) && log.contains(QStringLiteral("leave 6 main")));

        qputenv("SVC_PROBE_COMMAND_DELAY", "0"); // read by the service only at its start
        for (int code = 10; code < 30; ++code)
            QVERIFY(controller.sendCommand(code));
        QCOMPARE(notes().size(), 1 + 4 + 40);
        QVERIFY(controller.stop());
    }

    // The stand-in's own defences: its database is its user's alone, its
    // control sockets answer only that user, and an unusable database fails
    // at once instead of waiting for its lock forever.
    void unusableDatabase_data()
    {
        QTest::addColumn<bool>("readOnly");
        QTest::addColumn<QString>("reason");

        QTest::newRow("folder cannot be made") << false << "cannot create the folder";
        QTest::newRow("read-only folder") << true << "cannot write to it (";
    }

    // A database that cannot be used: one clear line, at once, not an endless
    // wait for its lock.
    void unusableDatabase()
    {
        QFETCH(bool, readOnly);
        QFETCH(QString, reason);

        QString db = root.filePath(QStringLiteral("db"));
        QStringList command = {probe, QStringLiteral("-v")};
        if (!readOnly) {
            QVERIFY(testsupport::WriteFile(root.filePath(QStringLiteral("not-a-folder")), QByteArray()));
            db = root.filePath(QStringLiteral("not-a-folder/db"));
        } else if (::geteuid() == 0) { // root writes through modes: a read-only mount of its own
            QVERIFY(QDir().mkpath(db));
            command = QStringList{QStringLiteral("unshare"), QStringLiteral("-m"), QStringLiteral("sh"), QStringLiteral("-c"),
                                  QStringLiteral("mount --bind \"$1\" \"$1\" && mount -o remount,bind,ro \"$1\" || exit 77; "
                                                 "exec \"$2\" -v"),
                                  QStringLiteral("sh"), db, probe};
        } else {
            QVERIFY(QDir().mkpath(db));
            QVERIFY(QFile::setPermissions(db, QFileDevice::ReadOwner | QFileDevice::ExeOwner));
        }
        qputenv("TARN_SCM_ROOT", db.toLocal8Bit());
        const RunResult r = runProgram(command.first(), command.mid(1));
        QFile::setPermissions(db, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
        if (r.code == 77)
            QSKIP("no read-only mount possible here");
        QCOMPARE(r.code, 0);
        QCOMPARE(r.out, "The service\n\ttst_probe\n\t" + probe.toUtf8() + "\n\nis not installed and not running\n\n");
        const QByteArray &err = r.err;
        QVERIFY2(err.startsWith("Service control manager: the database folder " + db.toUtf8() + " is not usable: "
                                + reason.toUtf8())
                     && err.count('\n') == 1,
                 err.constData());
    }

    // A permissive umask must not open the database to other users: it holds
    // the launch tokens and the services' output.
    void databaseIsPrivate()
    {
        const QString db = root.filePath(QStringLiteral("private/db"));
        qputenv("TARN_SCM_ROOT", db.toLocal8Bit());
        const mode_t mask = ::umask(0);
        const auto restoreMask = qScopeGuard([mask] { ::umask(mask); });
        QVERIFY(startProbe(0));
        QtServiceController controller(name);
        ScmFunctions &scm = scmFunctions();
        HANDLE source = scm.RegisterEventSourceW(nullptr, wideText(name));
        LPCWSTR text = u"event";
        QVERIFY(source && scm.ReportEventW(source, 4, 0, 0, nullptr, 1, 0, &text, nullptr));
        scm.DeregisterEventSource(source);

        const QFileDevice::Permissions others = QFileDevice::ReadGroup | QFileDevice::WriteGroup | QFileDevice::ExeGroup
                                                | QFileDevice::ReadOther | QFileDevice::WriteOther | QFileDevice::ExeOther;
        const QFileDevice::Permissions owner = QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner;
        QCOMPARE(QFileInfo(db).permissions() & (owner | others), owner);
        QStringList kinds;
        const QFileInfoList entries = QDir(db).entryInfoList(QDir::AllEntries | QDir::System | QDir::Hidden | QDir::NoDotAndDotDot);
        for (const QFileInfo &entry : entries) {
            QVERIFY2(!(entry.permissions() & others), qPrintable(entry.fileName()));
            kinds.append(entry.suffix());
        }
        kinds.sort();
        QCOMPARE(kinds, (QStringList{"ctl", "log", "svc", "txt"})); // socket, output, record, event log
        QVERIFY(controller.stop());
    }

    void controlFromOtherUserRefused()
    {
        if (::geteuid() != 0)
            QSKIP("connecting as another user needs root");
        QVERIFY(startProbe(QtServiceBase::CanBeSuspended));
        QtServiceController controller(name);

        // Folder and socket opened to everybody: only the credentials check is left.
        const QList<qint64> services = processesOf(probe);
        QCOMPARE(services.size(), 1);
        const QString socket = QStringLiteral("%1.ctl").arg(services.first());
        const QFileDevice::Permissions all(0x7777);
        QVERIFY(QFile::setPermissions(root.path(), all));
        QVERIFY(QFile::setPermissions(root.filePath(socket), all));
        const int outcome = controlAsNobody(root.path(), socket, Scm::ControlPause);
        QFile::setPermissions(root.path(), QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
        QCOMPARE(outcome, 1);
        QCOMPARE(serviceState(name), DWORD(Scm::StateRunning));
        QVERIFY(controller.stop());
    }

private:
    QStringList notes() const
    {
        QFile log(logPath);
        if (!log.open(QIODevice::ReadOnly))
            return {};
        return QString::fromUtf8(log.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    }

    bool installProbe(int flags)
    {
        qputenv("SVC_PROBE_NAME", name.toUtf8());
        qputenv("SVC_PROBE_FLAGS", QByteArray::number(flags));
        return QtServiceController::install(probe);
    }

    bool startProbe(int flags)
    {
        return installProbe(flags) && QtServiceController(name).start() && waitForServiceState(name, Scm::StateRunning);
    }

    QTemporaryDir root;
    QString logPath;
    QString probe;
    const QString name = QStringLiteral("tst_probe");
};

QTEST_GUILESS_MAIN(TestQtService)
#include "tst_qtservice.moc"
