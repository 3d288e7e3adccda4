#include "runs.h"

#include "stopsignals.h"
#include "tarnsrvgui.h"

#include <QApplication>

#ifdef Q_OS_WIN
#include <windows.h>
#endif

int RunWindow(int argc, char *argv[], const RunOptions &options, [[maybe_unused]] bool consoleAttached)
{
    // The console's Ctrl+C would end the window.
#ifdef Q_OS_WIN
    if (consoleAttached)
        FreeConsole();
#endif
    QApplication app(argc, argv);
    NameApplication();
    StopSignals stopSignals;
    TarnSrvGui window(options);
    QObject::connect(&stopSignals, &StopSignals::Received, &window, &TarnSrvGui::StopAndQuit);
    window.show();
    return QApplication::exec();
}
