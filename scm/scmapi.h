#ifndef SCMAPI_H
#define SCMAPI_H

// The control-manager interface the service framework is written against:
// Windows' own declarations on Windows, the same shapes declared here
// elsewhere, where the substitute control manager (scmsubstitute.cpp)
// implements them.

#include <QString>
#include <QStringList>

#ifdef Q_OS_WIN
#include <windows.h>
#include <winsvc.h>
#else
#define WINAPI
#define VOID void

using BOOL = int;
using BYTE = quint8;
using WORD = quint16;
using DWORD = quint32;
using WCHAR = char16_t; // UTF-16, as on Windows
using LPWSTR = WCHAR *;
using LPCWSTR = const WCHAR *;
using LPVOID = void *;
using LPBYTE = BYTE *;
using LPDWORD = DWORD *;
using HANDLE = void *;
using HMODULE = void *;
using PSID = void *;

struct ScmHandle;
using SC_HANDLE = ScmHandle *;
struct ScmStatusHandle;
using SERVICE_STATUS_HANDLE = ScmStatusHandle *;

struct SERVICE_STATUS
{
    DWORD dwServiceType;
    DWORD dwCurrentState;
    DWORD dwControlsAccepted;
    DWORD dwWin32ExitCode;
    DWORD dwServiceSpecificExitCode;
    DWORD dwCheckPoint;
    DWORD dwWaitHint;
};
using LPSERVICE_STATUS = SERVICE_STATUS *;

using LPSERVICE_MAIN_FUNCTIONW = void (*)(DWORD argc, LPWSTR *argv);
using LPHANDLER_FUNCTION = void (*)(DWORD control);

struct SERVICE_TABLE_ENTRYW
{
    LPWSTR lpServiceName;
    LPSERVICE_MAIN_FUNCTIONW lpServiceProc;
};

struct QUERY_SERVICE_CONFIGW
{
    DWORD dwServiceType;
    DWORD dwStartType;
    DWORD dwErrorControl;
    LPWSTR lpBinaryPathName;
    LPWSTR lpLoadOrderGroup;
    DWORD dwTagId;
    LPWSTR lpDependencies;
    LPWSTR lpServiceStartName;
    LPWSTR lpDisplayName;
};
using LPQUERY_SERVICE_CONFIGW = QUERY_SERVICE_CONFIGW *;

struct SERVICE_DESCRIPTIONW
{
    LPWSTR lpDescription;
};

enum SC_ACTION_TYPE { SC_ACTION_NONE = 0, SC_ACTION_RESTART = 1, SC_ACTION_REBOOT = 2, SC_ACTION_RUN_COMMAND = 3 };

struct SC_ACTION
{
    SC_ACTION_TYPE Type;
    DWORD Delay;
};

struct SERVICE_FAILURE_ACTIONSW
{
    DWORD dwResetPeriod;
    LPWSTR lpRebootMsg;
    LPWSTR lpCommand;
    DWORD cActions;
    SC_ACTION *lpsaActions;
};

struct SERVICE_DELAYED_AUTO_START_INFO
{
    BOOL fDelayedAutostart;
};

struct SERVICE_FAILURE_ACTIONS_FLAG
{
    BOOL fFailureActionsOnNonCrashFailures;
};

// Linked directly on Windows; provided by the stand-in (scm/) elsewhere.
DWORD GetLastError();
void SetLastError(DWORD code);
void Sleep(DWORD milliseconds);
DWORD GetModuleFileNameW(HMODULE module, LPWSTR buffer, DWORD size);
#endif

// The seventeen control-manager and event-log entry points, in the order
// they are resolved.
struct ScmFunctions
{
    SERVICE_STATUS_HANDLE (WINAPI *RegisterServiceCtrlHandlerW)(LPCWSTR, LPHANDLER_FUNCTION);
    BOOL (WINAPI *SetServiceStatus)(SERVICE_STATUS_HANDLE, LPSERVICE_STATUS);
    BOOL (WINAPI *ChangeServiceConfig2W)(SC_HANDLE, DWORD, LPVOID);
    BOOL (WINAPI *CloseServiceHandle)(SC_HANDLE);
    SC_HANDLE (WINAPI *CreateServiceW)(SC_HANDLE, LPCWSTR, LPCWSTR, DWORD, DWORD, DWORD, DWORD,
                                       LPCWSTR, LPCWSTR, LPDWORD, LPCWSTR, LPCWSTR, LPCWSTR);
    SC_HANDLE (WINAPI *OpenSCManagerW)(LPCWSTR, LPCWSTR, DWORD);
    BOOL (WINAPI *DeleteService)(SC_HANDLE);
    SC_HANDLE (WINAPI *OpenServiceW)(SC_HANDLE, LPCWSTR, DWORD);
    BOOL (WINAPI *QueryServiceStatus)(SC_HANDLE, LPSERVICE_STATUS);
    BOOL (WINAPI *StartServiceCtrlDispatcherW)(const SERVICE_TABLE_ENTRYW *);
    BOOL (WINAPI *StartServiceW)(SC_HANDLE, DWORD, LPCWSTR *);
    BOOL (WINAPI *ControlService)(SC_HANDLE, DWORD, LPSERVICE_STATUS);
    BOOL (WINAPI *DeregisterEventSource)(HANDLE);
    BOOL (WINAPI *ReportEventW)(HANDLE, WORD, WORD, DWORD, PSID, WORD, DWORD, LPCWSTR *, LPVOID);
    HANDLE (WINAPI *RegisterEventSourceW)(LPCWSTR, LPCWSTR);
    BOOL (WINAPI *QueryServiceConfigW)(SC_HANDLE, LPQUERY_SERVICE_CONFIGW, DWORD, LPDWORD);
    BOOL (WINAPI *QueryServiceConfig2W)(SC_HANDLE, DWORD, LPBYTE, DWORD, LPDWORD);
};

// The process-wide table; empty until resolveScmFunctions succeeds. The
// platform's backend fills it: advapi32 on Windows, the stand-in elsewhere.
ScmFunctions &scmFunctions();
bool resolveScmFunctions();

// Control-manager values the framework uses.
namespace Scm {
enum : DWORD {
    StateStopped = 1,
    StateStartPending = 2,
    StateStopPending = 3,
    StateRunning = 4,
    StateContinuePending = 5,
    StatePausePending = 6,
    StatePaused = 7,

    ControlStop = 1,
    ControlPause = 2,
    ControlContinue = 3,
    ControlInterrogate = 4,
    ControlShutdown = 5,
    ControlStartup = 256, // the framework's own start-up code
    FirstUserControl = 128,
    LastUserControl = 255,

    AcceptStop = 1,
    AcceptPauseContinue = 2,
    AcceptShutdown = 4,

    OwnProcess = 0x10,
    AutoStart = 2,
    DemandStart = 3,
    Disabled = 4,
    ErrorNormal = 1,
    DescriptionLevel = 1,
    FailureActionsLevel = 2,
    DelayedAutoStartLevel = 3,
    FailureActionsFlagLevel = 4,

    ManagerConnect = 0x0001,
    ManagerCreateService = 0x0002,
    ManagerAllAccess = 0xF003F,
    ServiceQueryConfig = 0x0001,
    ServiceChangeConfig = 0x0002,
    ServiceQueryStatus = 0x0004,
    ServiceStart = 0x0010,
    ServiceStop = 0x0020,
    ServicePauseContinue = 0x0040,
    ServiceInterrogate = 0x0080,
    ServiceUserDefinedControl = 0x0100,
    ServiceDelete = 0x10000,
    ServiceAllAccess = 0xF01FF,

    ErrorNotConnectedToManager = 1063,
    ErrorServiceSpecificError = 1066,
};
}

// Pointer casts between QString's UTF-16 and the wide-string type.
inline LPCWSTR wideText(const QString &text)
{
    return reinterpret_cast<LPCWSTR>(text.utf16());
}
QString fromWide(const WCHAR *text);

// The program and arguments of a registered binary path, which is a command
// line: a quoted program may be followed by arguments; an unquoted one (as
// older installations registered it) is taken whole.
QStringList splitBinaryPath(const QString &binaryPath);

// The system's text for a control-manager error code.
QString scmErrorText(DWORD code);
// A warning for a control-manager error code on stderr, formatted like
// qErrnoWarning: "text (system text)".
void scmWarning(DWORD code, const char *text);

#endif // SCMAPI_H
