#include "managercommandline.h"
#include "tarnsrv.h"
#include "tarnsrvgui.h"

#include <QApplication>

namespace {

void NameApplication()
{
    QCoreApplication::setApplicationName(QStringLiteral("TarnSrv"));
    QCoreApplication::setApplicationVersion(QStringLiteral(TARN_VERSION));
}

// The identity tools run without a window, so without a display.
int RunTool(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    NameApplication();
    ManagerCommandLine commandLine;
    if (!commandLine.Parse(QCoreApplication::arguments()))
        return ManagerCommandLine::Usage;
    return commandLine.RunTool();
}

} // namespace

int main(int argc, char *argv[])
{
    if (ManagerCommandLine::AsksForTool(argc, argv))
        return RunTool(argc, argv);

    TarnSrv::PreferScalableEventLoop();
    QApplication app(argc, argv);
    NameApplication();
    ManagerCommandLine commandLine;
    if (!commandLine.Parse(QApplication::arguments()))
        return ManagerCommandLine::Usage;
    int result = 0;
    {
        TarnSrvGui window;
        window.show();
        result = QApplication::exec();
    }
    return result;
}
