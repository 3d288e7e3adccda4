// The control-manager table on Windows: the system's own, from advapi32.

#include "scmapi.h"

#include <QLibrary>

#include <cstdio>

// Filled once, on the main thread, before the runtime starts other threads.
bool resolveScmFunctions()
{
    ScmFunctions &table = scmFunctions();
    if (table.OpenSCManagerW)
        return true;
    // The library object goes away unloaded; the pointers stay valid.
    QLibrary library(QStringLiteral("advapi32"));
#define RESOLVE(name) table.name = reinterpret_cast<decltype(table.name)>(library.resolve(#name))
    RESOLVE(RegisterServiceCtrlHandlerW);
    RESOLVE(SetServiceStatus);
    RESOLVE(ChangeServiceConfig2W);
    RESOLVE(CloseServiceHandle);
    RESOLVE(CreateServiceW);
    RESOLVE(OpenSCManagerW);
    RESOLVE(DeleteService);
    RESOLVE(OpenServiceW);
    RESOLVE(QueryServiceStatus);
    RESOLVE(StartServiceCtrlDispatcherW);
    RESOLVE(StartServiceW);
    RESOLVE(ControlService);
    RESOLVE(DeregisterEventSource);
    RESOLVE(ReportEventW);
    RESOLVE(RegisterEventSourceW);
    RESOLVE(QueryServiceConfigW);
    RESOLVE(QueryServiceConfig2W);
#undef RESOLVE
    return table.OpenSCManagerW != nullptr;
}

QString scmErrorText(DWORD code)
{
    return qt_error_string(int(code));
}

void scmWarning(DWORD code, const char *text)
{
    // Straight to stderr in qErrnoWarning's format: the host is a GUI-subsystem
    // program without a console, for which Qt's message handler writes to the
    // debugger, not to stderr where the other command-line messages go.
    fprintf(stderr, "%s (%s)\n", text, qPrintable(scmErrorText(code)));
}
