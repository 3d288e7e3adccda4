#include "tarnsrvsrv.h"

#include "exitcode.h"

#include <QDebug>

TarnSrvSrv::TarnSrvSrv(int argc, char **argv)
    : QtService<QCoreApplication>(argc, argv, QStringLiteral("TarnSvc"))
{
    try {
        setServiceDescription(QStringLiteral("VARNOK Server"));
        setServiceFlags(CanBeSuspended);
        QObject::connect(&supervisor, &ManagerSupervisor::restartScheduled, &supervisor,
                         [this](int, const QString &message) { logMessage(message, Warning); });
        QObject::connect(&supervisor, &ManagerSupervisor::gaveUp, &supervisor, [this](const QString &message) {
            logMessage(message + QStringLiteral("; the service stops"), Error);
            stopWithError(Tarn::ManagerFailed);
        });
        // Restart at once twice, then after a minute each time; a day without
        // a failure starts the count over. A stop with an error code counts:
        // that is how the host gives up on a manager that keeps failing.
        setFailureRestarts({0, 0, 60000}, 24 * 60 * 60);
        // A server needs the network more than the boot needs the server.
        setDelayedAutoStart(true);
        // The manager runs with the service's rights and its configuration
        // chooses where the service writes.
        setGuardedFiles({childFileName(), QStringLiteral("TarnSrv.cfg")});
    } catch (...) {
        QMessageLogger().critical() << "An unknown error in the constructor";
    }
}

QString TarnSrvSrv::childFileName()
{
#ifdef Q_OS_WIN
    return QStringLiteral("TarnSrv.exe");
#else
    return QStringLiteral("TarnSrv");
#endif
}

QString TarnSrvSrv::childProgram()
{
    return QCoreApplication::applicationDirPath() + QLatin1Char('/') + childFileName();
}

void TarnSrvSrv::start()
{
    try {
        // Whether the manager shows its window is its own choice, by its one
        // rule from the environment it inherits: a service started at boot
        // has no display, and the manager then runs headless.
        supervisor.setProgram(childProgram());
        supervisor.start();
    } catch (...) {
        QMessageLogger().critical() << "An unknown error in the start";
    }
}

// The manager is asked to close first, so that it lets its clients go and
// logs its stop; one that has not ended within the grace period is killed.
// A restart that was waiting is cancelled.
void TarnSrvSrv::stop()
{
    try {
        supervisor.stop(StopGraceMs);
    } catch (...) {
        QMessageLogger().critical() << "An unknown error in the stop";
    }
}

// The manager keeps running while paused; one that ends meanwhile is started
// again on resume.
void TarnSrvSrv::pause()
{
    supervisor.pause();
}

void TarnSrvSrv::resume()
{
    supervisor.resume();
}
