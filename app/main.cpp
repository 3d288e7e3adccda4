// TarnSrv, the manager: where its parts are put together, and the one place
// that decides how it runs.

#include "commandline.h"
#include "descriptorlimit.h"
#include "managercommandline.h"
#include "runmode.h"
#include "runs.h"
#include "scalableeventloop.h"

#include <QCoreApplication>
#include <QTextStream>

#ifdef Q_OS_WIN
#include <windows.h>

#include <cstdio>
#endif

namespace {

#ifdef TARN_GUI
constexpr bool WindowBuilt = true;
#else
constexpr bool WindowBuilt = false;
#endif

// The identity tools run without a window, so without a display.
int RunTool(int argc, char *argv[], ManagerCommandLine &commandLine)
{
    QCoreApplication app(argc, argv);
    NameApplication();
    return commandLine.RunTool();
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

QStringList Arguments(int argc, char *argv[])
{
    QStringList arguments;
    for (int i = 0; i < argc; ++i)
        arguments.append(QString::fromLocal8Bit(argv[i]));
    return arguments;
}

} // namespace

void NameApplication()
{
    QCoreApplication::setApplicationName(QStringLiteral("TarnSrv"));
    QCoreApplication::setApplicationVersion(QStringLiteral(TARN_VERSION));
}

int main(int argc, char *argv[])
{
    [[maybe_unused]] const bool consoleAttached = AttachParentConsole();
    // Read before the application exists: the platform depends on it.
    ManagerCommandLine commandLine;
    if (!commandLine.Parse(Arguments(argc, argv)))
        return Tarn::Usage;
    if (commandLine.IsToolRun())
        return RunTool(argc, argv, commandLine);
    RunOptions options = commandLine.Options();
    const Tarn::RunModeChoice choice =
        Tarn::ChooseRunMode(options, QProcessEnvironment::systemEnvironment(), WindowBuilt);
    if (commandLine.AsksRunMode()) {
        QTextStream(stdout) << Tarn::RunModeName(choice.mode) << '\n';
        return Tarn::Ok;
    }
    if (!choice.notice.isEmpty())
        QTextStream(stderr) << choice.notice << '\n';
    options.headless = choice.mode == Tarn::RunMode::Headless;
    Tarn::RaiseDescriptorLimit();
    Tarn::PreferScalableEventLoop();
#ifdef TARN_GUI
    if (!options.headless)
        return RunWindow(argc, argv, options, consoleAttached);
#endif
    return RunHeadless(argc, argv, options);
}
