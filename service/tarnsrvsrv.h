#ifndef TARNSRVSRV_H
#define TARNSRVSRV_H

#include "managersupervisor.h"
#include "qtservice.h"

// The service "TarnSvc": keeps the manager application TarnSrv running while
// the service runs, and stops with an error when the manager keeps failing.
class TarnSrvSrv : public QtService<QCoreApplication>
{
public:
    TarnSrvSrv(int argc, char **argv);

    // The manager beside the host: its file name, and its path once the
    // application object exists.
    static QString childFileName();
    static QString childProgram();

    // Below the two seconds a controller waits for the stop.
    static constexpr int StopGraceMs = 1500;

protected:
    void start() override;
    void stop() override;
    void pause() override;
    void resume() override;

private:
    // Its destruction kills a child that is still running and waits for it,
    // so no child outlives the host, whatever way it ends.
    ManagerSupervisor supervisor;
};

#endif // TARNSRVSRV_H
