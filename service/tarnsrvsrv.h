#ifndef TARNSRVSRV_H
#define TARNSRVSRV_H

#include "qtservice.h"

#include <QProcess>

// The service "TarnSvc": keeps the manager application TarnSrv running while
// the service runs.
class TarnSrvSrv : public QtService<QCoreApplication>
{
public:
    TarnSrvSrv(int argc, char **argv);
    ~TarnSrvSrv() override;

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
    QProcess process;
};

#endif // TARNSRVSRV_H
