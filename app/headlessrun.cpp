#include "runs.h"

#include "exitcode.h"
#include "loglevel.h"
#include "logsink.h"
#include "managercore.h"
#include "scalableeventloop.h"
#include "stopsignals.h"
#include "systemdnotifier.h"

#include <QCoreApplication>
#include <QTextStream>

int RunHeadless(int argc, char *argv[], const RunOptions &options)
{
    Tarn::UseScalableEventLoop();
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
    QObject::connect(&core, &ManagerCore::Refused, &core, [](const QString &text) {
        QTextStream(stderr) << LogSink::StderrPrefix(LogLevel::Error) << text << '\n';
        QCoreApplication::exit(Tarn::Refused);
    });
    core.BeginStartUp();
    return QCoreApplication::exec();
}
