#include "tarnsrvsrv.h"

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
            stopWithError(ManagerFailedExitCode);
        });
    } catch (...) {
        QMessageLogger().critical() << "An unknown error in the constructor";
    }
}

QString TarnSrvSrv::childProgram()
{
#ifdef Q_OS_WIN
    return QStringLiteral("%1/TarnSrv.exe").arg(QCoreApplication::applicationDirPath());
#else
    return QStringLiteral("%1/TarnSrv").arg(QCoreApplication::applicationDirPath());
#endif
}

void TarnSrvSrv::start()
{
    try {
        supervisor.setProgram(childProgram());
#if defined(Q_OS_UNIX) && !defined(Q_OS_DARWIN)
        // A service started at boot has no display; the manager then runs offscreen.
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        if (!env.contains(QStringLiteral("DISPLAY")) && !env.contains(QStringLiteral("WAYLAND_DISPLAY"))
            && !env.contains(QStringLiteral("QT_QPA_PLATFORM"))) {
            env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
            supervisor.setProcessEnvironment(env);
        }
#endif
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
