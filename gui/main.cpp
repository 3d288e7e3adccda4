#include "commandline.h"
#include "descriptorlimit.h"
#include "display.h"
#include "loglevel.h"
#include "logsink.h"
#include "managercore.h"
#include "managercommandline.h"
#include "scalableeventloop.h"
#include "stopsignals.h"
#include "systemdnotifier.h"
#include "tarnsrv.h"
#include "tarnsrvgui.h"

#include <QApplication>
#include <QTextStream>
#include <QTimer>

#ifdef Q_OS_WIN
#include <windows.h>

#include <cstdio>
#endif

namespace {

void NameApplication()
{
    QCoreApplication::setApplicationName(QStringLiteral("TarnSrv"));
    QCoreApplication::setApplicationVersion(QStringLiteral(TARN_VERSION));
}

// The identity tools run without a window, so without a display.
int RunTool(int argc, char *argv[], ManagerCommandLine &commandLine)
{
    QCoreApplication app(argc, argv);
    NameApplication();
    return commandLine.RunTool();
}

// Neither a display nor a platform asked for: nothing could show the window.
bool LacksDisplay()
{
    return !Tarn::DisplayInEnvironment() && qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM");
}

// A windowed Windows program started from a console has no standard streams
// of its own: the texts, the identity tools and a headless run write to that
// console, and its Ctrl+C stops a headless run. True when attached.
bool AttachParentConsole()
{
#ifdef Q_OS_WIN
    const HANDLE out = GetStdHandle(STD_OUTPUT_HANDLE);
    if ((out && out != INVALID_HANDLE_VALUE) || !AttachConsole(ATTACH_PARENT_PROCESS))
        return false;
    return std::freopen("CONOUT$", "w", stdout) && std::freopen("CONOUT$", "w", stderr);
#else
    return false;
#endif
}

// A window leaves the console it was started from, whose Ctrl+C would end it.
void LeaveConsole([[maybe_unused]] bool attached)
{
#ifdef Q_OS_WIN
    if (attached)
        FreeConsole();
#endif
}

QStringList Arguments(int argc, char *argv[])
{
    QStringList arguments;
    for (int i = 0; i < argc; ++i)
        arguments.append(QString::fromLocal8Bit(argv[i]));
    return arguments;
}

// Without a window: no widget, no platform plugin, the log on stderr.
int RunHeadless(int argc, char *argv[], const RunOptions &options)
{
    QCoreApplication app(argc, argv);
    NameApplication();
    StopSignals stopSignals;
    LogSink log;
    log.SetHeadless(true);
    ManagerCore core(options, &log);
    SystemdNotifier systemd(&log);
    QObject::connect(&core, &ManagerCore::StartUpDone, &systemd, &SystemdNotifier::Ready);
    QObject::connect(&stopSignals, &StopSignals::Received, &systemd, &SystemdNotifier::Stopping);
    QObject::connect(&stopSignals, &StopSignals::Received, &core, &ManagerCore::StopAndQuit);
    QTimer::singleShot(ManagerCore::InitDelayMs, &core, [&core] {
        if (core.Claim()) {
            core.StartIfAsked();
            return;
        }
        QTextStream(stderr) << LogSink::StderrPrefix(LogLevel::Error) << ManagerCore::RefusalText() << '\n';
        QCoreApplication::exit(Tarn::Refused);
    });
    return QCoreApplication::exec();
}

int RunWindow(int argc, char *argv[], const RunOptions &options)
{
    QApplication app(argc, argv);
    NameApplication();
    StopSignals stopSignals;
    TarnSrvGui window(options);
    QObject::connect(&stopSignals, &StopSignals::Received, &window, &TarnSrvGui::StopAndQuit);
    window.show();
    return QApplication::exec();
}

} // namespace

int main(int argc, char *argv[])
{
    const bool consoleAttached = AttachParentConsole();
    // Read before the application exists: the platform depends on it.
    ManagerCommandLine commandLine;
    if (!commandLine.Parse(Arguments(argc, argv)))
        return Tarn::Usage;
    if (commandLine.IsToolRun())
        return RunTool(argc, argv, commandLine);
    RunOptions options = commandLine.Options();
    options.headless = options.headless || LacksDisplay();
    Tarn::RaiseDescriptorLimit();
    TarnSrv::PreferScalableEventLoop();
    if (options.headless) {
        Tarn::UseScalableEventLoop();
        return RunHeadless(argc, argv, options);
    }
    LeaveConsole(consoleAttached);
    return RunWindow(argc, argv, options);
}
