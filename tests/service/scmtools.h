#ifndef SCMTOOLS_H
#define SCMTOOLS_H

#include "scmapi.h"

#include <QElapsedTimer>
#include <QThread>

// The status of a service in the control manager; false when it cannot be
// queried.
inline bool queryServiceStatus(const QString &name, SERVICE_STATUS *status)
{
    if (!resolveScmFunctions())
        return false;
    ScmFunctions &scm = scmFunctions();
    SC_HANDLE manager = scm.OpenSCManagerW(nullptr, nullptr, Scm::ManagerConnect);
    SC_HANDLE handle = manager ? scm.OpenServiceW(manager, wideText(name), Scm::ServiceQueryStatus) : nullptr;
    const bool ok = handle && scm.QueryServiceStatus(handle, status);
    if (handle)
        scm.CloseServiceHandle(handle);
    if (manager)
        scm.CloseServiceHandle(manager);
    return ok;
}

// The current state of a service in the control manager, 0 when it cannot
// be queried.
inline DWORD serviceState(const QString &name)
{
    SERVICE_STATUS status = {};
    return queryServiceStatus(name, &status) ? status.dwCurrentState : 0;
}

inline bool waitForServiceState(const QString &name, DWORD wanted, int timeoutMs = 5000)
{
    QElapsedTimer timer;
    timer.start();
    while (serviceState(name) != wanted) {
        if (timer.elapsed() > timeoutMs)
            return false;
        QThread::msleep(20);
    }
    return true;
}

#endif // SCMTOOLS_H
