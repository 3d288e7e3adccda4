#include "proctools.h"
#include "scmtools.h"
#include "qtservice.h"
#include "scmapi.h"

#include <QElapsedTimer>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

// The framework end to end: a probe service run by the substitute control
// manager in a private database directory.
class TestQtService : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void nameNormalisation_data();
    void nameNormalisation();
    void install_data();
    void install();
    void startupType_data();
    void startupType();
    void lifecycle();
    void commandRange_data();
    void commandRange();
    void refusedControls_data();
    void refusedControls();
    void stopGivesUpAfterTwoSeconds();
    void uninstallRunning();
    void dispatcherFailure_data();
    void dispatcherFailure();
    void concurrentControllers();
    void killedServiceReadsStopped();

private:
    QStringList notes() const;
    void installProbe(const QString &name, int flags);

    QTemporaryDir root;
    QString logPath;
    const QString probe = QStringLiteral(SVC_PROBE_PATH);
    const QString name = QStringLiteral("tst_probe");
};

void TestQtService::initTestCase()
{
    QVERIFY(root.isValid());
    qputenv("TARN_SCM_ROOT", root.path().toLocal8Bit());
    logPath = root.filePath(QStringLiteral("probe.log"));
    qputenv("SVC_PROBE_LOG", logPath.toLocal8Bit());
}

void TestQtService::init()
{
    for (const char *var : {"SVC_PROBE_NAME", "SVC_PROBE_DESCRIPTION", "SVC_PROBE_FLAGS", "SVC_PROBE_AUTO",
                            "SVC_PROBE_START_DELAY", "SVC_PROBE_STOP_DELAY", "SVC_PROBE_COMMAND_DELAY"})
        qunsetenv(var);
    QFile::remove(logPath);
}

void TestQtService::cleanup()
{
    killAll(probe);
    qputenv("TARN_SCM_ROOT", root.path().toLocal8Bit());
    const QStringList records = QDir(root.path()).entryList({QStringLiteral("*.svc")});
    for (const QString &record : records)
        QFile::remove(root.filePath(record));
}

QStringList TestQtService::notes() const
{
    QFile log(logPath);
    if (!log.open(QIODevice::ReadOnly))
        return {};
    return QString::fromUtf8(log.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

void TestQtService::installProbe(const QString &service, int flags)
{
    qputenv("SVC_PROBE_NAME", service.toUtf8());
    qputenv("SVC_PROBE_FLAGS", QByteArray::number(flags));
    QVERIFY(QtServiceController::install(probe));
}

namespace {
class NamedService : public QtService<QCoreApplication>
{
public:
    explicit NamedService(const QString &name) : QtService<QCoreApplication>(0, nullptr, name) {}

protected:
    void start() override {}
};
}

void TestQtService::nameNormalisation_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("expected");
    QTest::addColumn<QStringList>("warnings");

    const QString longWarning = QStringLiteral("QtService: 'name' is longer than 255 characters.");
    const QString slashWarning = QStringLiteral("QtService: 'name' contains backslashes '\\'.");
    QTest::newRow("plain") << "TarnSvc" << "TarnSvc" << QStringList();
    QTest::newRow("300 characters") << QString(300, QLatin1Char('x')) << QString(255, QLatin1Char('x'))
                                    << QStringList{longWarning};
    QTest::newRow("backslash becomes U+0000") << "a\\b" << QString(QStringLiteral("a") + QChar(0) + QStringLiteral("b"))
                                              << QStringList{slashWarning};
    QTest::newRow("backslash cut off with the tail") << QString(255, QLatin1Char('y')) + QLatin1Char('\\')
                                                     << QString(255, QLatin1Char('y')) << QStringList{longWarning};
}

void TestQtService::nameNormalisation()
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

void TestQtService::install_data()
{
    QTest::addColumn<QString>("service");
    QTest::addColumn<QString>("description");
    QTest::addColumn<bool>("autoStart");
    QTest::addColumn<QString>("account");
    QTest::addColumn<QString>("password");

    QTest::newRow("demand start, no description") << "tst_plain" << QString() << false << QString() << QString();
    QTest::newRow("automatic start with description") << "tst_auto" << "Probe service" << true << QString() << QString();
    QTest::newRow("name with spaces") << "tst probe two" << "two words" << false << QString() << QString();
    QTest::newRow("account and password") << "tst_account" << QString() << false << "someuser" << "s3cret word";
}

void TestQtService::install()
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
    QFile script(wrapper);
    QVERIFY(script.open(QIODevice::WriteOnly));
    script.write("#!/bin/sh\nprintf '%s\\n' \"$@\" > \"$0.args\"\ntimeout 5 cat > \"$0.stdin\"\nexec \"" + probe.toUtf8()
                 + "\" \"$@\" < \"$0.stdin\"\n");
    script.close();
    QVERIFY(script.setPermissions(script.permissions() | QFileDevice::ExeOwner));
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
    QVERIFY(!QtServiceController::install(root.filePath(QStringLiteral("missing-program"))));
}

void TestQtService::startupType_data()
{
    QTest::addColumn<int>("startType"); // -1: no such service
    QTest::addColumn<int>("expected");

    QTest::newRow("boot") << 0 << int(QtServiceController::AutoStartup);
    QTest::newRow("system") << 1 << int(QtServiceController::AutoStartup);
    QTest::newRow("automatic") << 2 << int(QtServiceController::AutoStartup);
    QTest::newRow("demand") << 3 << int(QtServiceController::ManualStartup);
    QTest::newRow("disabled") << 4 << int(QtServiceController::AutoStartup);
    QTest::newRow("missing service") << -1 << int(QtServiceController::ManualStartup);
}

void TestQtService::startupType()
{
    QFETCH(int, startType);
    QFETCH(int, expected);

    QVERIFY(resolveScmFunctions());
    if (startType >= 0) {
        ScmFunctions &scm = scmFunctions();
        SC_HANDLE manager = scm.OpenSCManagerW(nullptr, nullptr, Scm::ManagerAllAccess);
        SC_HANDLE service = scm.CreateServiceW(manager, wideText(name), wideText(name), Scm::ServiceAllAccess,
                                               Scm::OwnProcess, DWORD(startType), Scm::ErrorNormal,
                                               wideText(probe), nullptr, nullptr, nullptr, nullptr, nullptr);
        QVERIFY(service);
        scm.CloseServiceHandle(service);
        scm.CloseServiceHandle(manager);
    }
    QCOMPARE(int(QtServiceController(name).startupType()), expected);
}

void TestQtService::lifecycle()
{
    qputenv("SVC_PROBE_START_DELAY", "800");
    installProbe(name, QtServiceBase::CanBeSuspended);
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

void TestQtService::commandRange_data()
{
    QTest::addColumn<int>("code");
    QTest::addColumn<bool>("installed");
    QTest::addColumn<bool>("delivered");
    QTest::addColumn<bool>("managerAsked");

    QTest::newRow("0") << 0 << true << true << true;
    QTest::newRow("127") << 127 << true << true << true;
    QTest::newRow("128") << 128 << true << false << false;
    QTest::newRow("1000") << 1000 << true << false << false;
    QTest::newRow("-1") << -1 << true << false << false;
    QTest::newRow("service missing") << 5 << false << false << true;
}

void TestQtService::commandRange()
{
    QFETCH(int, code);
    QFETCH(bool, installed);
    QFETCH(bool, delivered);
    QFETCH(bool, managerAsked);

    QtServiceController controller(name);
    if (installed) {
        installProbe(name, 0);
        QVERIFY(controller.start());
        QVERIFY(waitForServiceState(name, Scm::StateRunning));
    }
    const DWORD marker = 4242;
    SetLastError(marker);
    QCOMPARE(controller.sendCommand(code), delivered);
    QCOMPARE(GetLastError() != marker, managerAsked && !delivered);
    QCOMPARE(notes().contains(QStringLiteral("enter %1 main").arg(code)), delivered);
}

void TestQtService::refusedControls_data()
{
    QTest::addColumn<int>("flags");
    QTest::addColumn<QString>("operation");

    QTest::newRow("stop, service cannot be stopped") << int(QtServiceBase::CannotBeStopped) << "stop";
    QTest::newRow("pause, service cannot be suspended") << 0 << "pause";
    QTest::newRow("resume, service cannot be suspended") << 0 << "resume";
}

void TestQtService::refusedControls()
{
    QFETCH(int, flags);
    QFETCH(QString, operation);

    installProbe(name, flags);
    QtServiceController controller(name);
    QVERIFY(controller.start());
    QVERIFY(waitForServiceState(name, Scm::StateRunning));

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

void TestQtService::stopGivesUpAfterTwoSeconds()
{
    qputenv("SVC_PROBE_STOP_DELAY", "3000");
    installProbe(name, 0);
    QtServiceController controller(name);
    QVERIFY(controller.start());
    QVERIFY(waitForServiceState(name, Scm::StateRunning));

    QElapsedTimer timer;
    timer.start();
    QVERIFY(!controller.stop());
    QVERIFY2(timer.elapsed() >= 1900 && timer.elapsed() < 2900, qPrintable(QString::number(timer.elapsed())));
    QCOMPARE(serviceState(name), DWORD(Scm::StateStopPending));
    QVERIFY(controller.isRunning());
    QVERIFY(waitForServiceState(name, Scm::StateStopped, 3000));
}

void TestQtService::uninstallRunning()
{
    installProbe(name, 0);
    QtServiceController controller(name);
    QVERIFY(controller.start());
    QVERIFY(waitForServiceState(name, Scm::StateRunning));

    QVERIFY(controller.uninstall());
    QVERIFY(controller.isInstalled()); // gone only once stopped
    QVERIFY(!controller.start());
    QVERIFY(controller.stop());
    QVERIFY(!controller.isInstalled());
}

void TestQtService::dispatcherFailure_data()
{
    QTest::addColumn<bool>("viaManager");
    QTest::addColumn<QString>("eventLog");

    QTest::newRow("launched for a service the program lacks")
        << true
        << "Error [tst_other] id=0 category=0: The Service failed to start [The executable program that "
           "this service is configured to run in does not implement the service.]";
    QTest::newRow("started from a console") << false << QString();
}

void TestQtService::dispatcherFailure()
{
    QFETCH(bool, viaManager);
    QFETCH(QString, eventLog);

    const QString eventLogPath = root.filePath(QStringLiteral("eventlog.txt"));
    QFile::remove(eventLogPath);
    if (viaManager) {
        installProbe(name, 0);
        qputenv("SVC_PROBE_NAME", "tst_other"); // the launched program claims another name
        QVERIFY(!QtServiceController(name).start());
        QCOMPARE(serviceState(name), DWORD(Scm::StateStopped));
    } else {
        // Not launched by the manager: it asks for a start of "itself", which is not installed.
        QProcess host;
        host.start(probe, {});
        QVERIFY(host.waitForFinished());
        QCOMPARE(host.exitCode(), 252);
        QCOMPARE(host.readAllStandardError(), QByteArray("The service tst_probe could not start\n"));
    }
    QFile log(eventLogPath);
    const QString logged = log.open(QIODevice::ReadOnly) ? QString::fromUtf8(log.readAll()) : QString();
    if (eventLog.isEmpty())
        QVERIFY(logged.isEmpty());
    else
        QVERIFY2(logged.contains(eventLog) && logged.count(QLatin1Char('\n')) == 1, qPrintable(logged));
}

// Two controller processes at once, then a burst: requests are handled one at
// a time and none is lost (a lost wake-up would hang a controller).
void TestQtService::concurrentControllers()
{
    qputenv("SVC_PROBE_COMMAND_DELAY", "300");
    installProbe(name, QtServiceBase::CanBeSuspended);
    QtServiceController controller(name);
    QVERIFY(controller.start());
    QVERIFY(waitForServiceState(name, Scm::StateRunning));

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
    QElapsedTimer timer;
    timer.start();
    for (int code = 10; code < 30; ++code)
        QVERIFY(controller.sendCommand(code));
    QCOMPARE(notes().size(), 1 + 4 + 40);
    QVERIFY(controller.stop());
}

void TestQtService::killedServiceReadsStopped()
{
    installProbe(name, QtServiceBase::CanBeSuspended);
    QtServiceController controller(name);
    QVERIFY(controller.start());
    QVERIFY(waitForServiceState(name, Scm::StateRunning));

    // A service process that dies without reporting reads as stopped, and starts again.
    killAll(probe);
    QVERIFY(waitForServiceState(name, Scm::StateStopped));
    QVERIFY(!controller.isRunning());
    QVERIFY(controller.start());
    QVERIFY(waitForServiceState(name, Scm::StateRunning));
    QVERIFY(controller.stop());
}

QTEST_GUILESS_MAIN(TestQtService)
#include "tst_qtservice.moc"
