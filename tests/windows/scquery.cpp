// Queries for the Windows check, straight from advapi32/kernel32 (not through
// the framework under test):
//   scquery state <service>   "<state> <pid>": the current state (1 stopped,
//                             4 running, 7 paused, ...) and the service's
//                             process, or "none" when it cannot be queried
//   scquery exit <service>    "<win32 exit code> <service-specific exit code>"
//                             of the current status, or "none"
//   scquery config <service>  "<type>|<start type>|<account>|<binary path>|<description>"
//                             in UTF-8, or "none" when it cannot be queried
//   scquery alive <pid>       "yes" while the process runs, else "no"
//   scquery text <code>       the system's message text for an error code, as
//                             Qt's qt_error_string gives it
//   scquery pid <program>     the process ids of the running <program>
//                             (a file name such as TarnSrv.exe), one a line
//   scquery close <pid>       asks the process to end as QProcess::terminate
//                             and the service host do: WM_CLOSE to its
//                             top-level windows and to each of its threads

#include <windows.h>
#include <tlhelp32.h>

#include <fcntl.h>
#include <io.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>

namespace {

BOOL CALLBACK CloseWindowOf(HWND window, LPARAM pid)
{
    DWORD owner = 0;
    GetWindowThreadProcessId(window, &owner);
    if (owner == DWORD(pid))
        PostMessageW(window, WM_CLOSE, 0, 0);
    return TRUE;
}

// How many threads of the process were sent the request.
int AskToClose(DWORD pid)
{
    EnumWindows(CloseWindowOf, LPARAM(pid));
    HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
    THREADENTRY32 thread = {};
    thread.dwSize = sizeof(thread);
    int asked = 0;
    for (BOOL more = Thread32First(snapshot, &thread); more; more = Thread32Next(snapshot, &thread)) {
        if (thread.th32OwnerProcessID == pid && PostThreadMessageW(thread.th32ThreadID, WM_CLOSE, 0, 0))
            ++asked;
    }
    CloseHandle(snapshot);
    return asked;
}

void PrintProcessIds(const wchar_t *program)
{
    HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
    PROCESSENTRY32W process = {};
    process.dwSize = sizeof(process);
    for (BOOL more = Process32FirstW(snapshot, &process); more; more = Process32NextW(snapshot, &process)) {
        if (_wcsicmp(process.szExeFile, program) == 0)
            printf("%lu\n", process.th32ProcessID);
    }
    CloseHandle(snapshot);
}

// In one of four buffers, taken in turn: no C++ runtime, since the installer's
// check runs this program alone, without the DLLs of the zip.
char *Utf8(const wchar_t *text)
{
    static char buffer[4][1024];
    static int next = 0;
    char *out = buffer[next++ % 4];
    out[0] = 0;
    if (text)
        WideCharToMultiByte(CP_UTF8, 0, text, -1, out, 1023, nullptr, nullptr);
    return out;
}

enum class Query { State, Exit, Config };

// The state, the exit codes or the configuration of a service, or "none"
// when it cannot be queried.
void PrintService(Query query, const wchar_t *name)
{
    const bool state = query != Query::Config;
    SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
    SC_HANDLE service =
        manager ? OpenServiceW(manager, name, state ? SERVICE_QUERY_STATUS : SERVICE_QUERY_CONFIG) : nullptr;
    static unsigned long long buffer[1024], description[1024];
    auto *status = reinterpret_cast<SERVICE_STATUS_PROCESS *>(buffer);
    auto *c = reinterpret_cast<QUERY_SERVICE_CONFIGW *>(buffer);
    auto *d = reinterpret_cast<SERVICE_DESCRIPTIONW *>(description);
    DWORD needed = 0;
    if (state && service
        && QueryServiceStatusEx(service, SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE *>(buffer), sizeof(buffer),
                                &needed))
        printf("%lu %lu\n", query == Query::State ? status->dwCurrentState : status->dwWin32ExitCode,
               query == Query::State ? status->dwProcessId : status->dwServiceSpecificExitCode);
    else if (!state && service && QueryServiceConfigW(service, c, sizeof(buffer), &needed)
             && QueryServiceConfig2W(service, SERVICE_CONFIG_DESCRIPTION, reinterpret_cast<BYTE *>(d),
                                     sizeof(description), &needed))
        printf("%lu|%lu|%s|%s|%s\n", c->dwServiceType, c->dwStartType, Utf8(c->lpServiceStartName),
               Utf8(c->lpBinaryPathName), Utf8(d->lpDescription));
    else
        printf("none\n");
    if (service)
        CloseServiceHandle(service);
    if (manager)
        CloseServiceHandle(manager);
}

} // namespace

int wmain(int argc, wchar_t **argv)
{
    if (argc != 3)
        return 2;
    const struct { const wchar_t *word; Query query; } queries[] = {
        {L"state", Query::State}, {L"exit", Query::Exit}, {L"config", Query::Config}};
    for (const auto &q : queries) {
        if (wcscmp(argv[1], q.word) == 0) {
            PrintService(q.query, argv[2]);
            return 0;
        }
    }
    if (wcscmp(argv[1], L"alive") == 0) {
        const DWORD pid = DWORD(wcstoul(argv[2], nullptr, 10));
        HANDLE process = OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, pid);
        DWORD code = 0;
        const bool alive = process && GetExitCodeProcess(process, &code) && code == STILL_ACTIVE;
        if (process)
            CloseHandle(process);
        printf(alive ? "yes\n" : "no\n");
        return 0;
    }
    if (wcscmp(argv[1], L"pid") == 0) {
        PrintProcessIds(argv[2]);
        return 0;
    }
    if (wcscmp(argv[1], L"close") == 0)
        return AskToClose(DWORD(wcstoul(argv[2], nullptr, 10))) > 0 ? 0 : 1;
    if (wcscmp(argv[1], L"text") == 0) {
        wchar_t *text = nullptr;
        FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                       nullptr, DWORD(wcstoul(argv[2], nullptr, 10)), MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT),
                       reinterpret_cast<wchar_t *>(&text), 0, nullptr);
        // As qt_error_string: a final CR LF dropped; UTF-8, without the C
        // runtime's line-end translation and without a line end of its own.
        char *out = Utf8(text);
        const size_t length = strlen(out);
        if (length >= 2 && strcmp(out + length - 2, "\r\n") == 0)
            out[length - 2] = 0;
        _setmode(_fileno(stdout), _O_BINARY);
        fputs(out, stdout);
        LocalFree(text);
        return 0;
    }
    return 2;
}
