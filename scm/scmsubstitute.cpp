// A small service control manager for platforms without one. It implements
// the control-manager functions of the framework's table with Windows'
// contracts and error codes, on a database directory shared by every process
// of the user. See README.md. This part holds the handles, the configuration
// and the event log.

#include "scmsubstitute_p.h"

#include <QDateTime>
#include <QFile>
#include <QFileInfo>
#include <QThread>
#include <cstring>

namespace ScmSubstitute {

namespace {

thread_local DWORD lastError = ErrorSuccess;

bool isKind(SC_HANDLE h, ScmHandle::Kind kind)
{
    return h && h->kind == kind;
}

} // namespace

BOOL fail(DWORD code)
{
    lastError = code;
    return 0;
}

std::optional<Record> serviceRecord(Database &db, SC_HANDLE h, DWORD access)
{
    if (!db) {
        fail(ErrorAccessDenied);
        return std::nullopt;
    }
    if (!isKind(h, ScmHandle::Service)) {
        fail(ErrorInvalidHandle);
        return std::nullopt;
    }
    if ((h->access & access) != access) {
        fail(ErrorAccessDenied);
        return std::nullopt;
    }
    std::optional<Record> r = db.load(h->name);
    if (!r)
        fail(ErrorServiceDoesNotExist);
    return r;
}

namespace {

// Strings packed behind a structure in a caller's buffer, Windows style.
class BufferWriter
{
public:
    BufferWriter(void *buffer, DWORD size, DWORD headerSize)
        : base(static_cast<char *>(buffer)), size(size), used(headerSize)
    {
    }

    LPWSTR add(const QString &text)
    {
        const WCHAR end = 0;
        return static_cast<LPWSTR>(add(text.utf16(), DWORD(text.size()) * sizeof(WCHAR), &end));
    }

    // The bytes, then the terminator's, when they fit; null otherwise.
    void *add(const void *data, DWORD bytes, const WCHAR *terminator = nullptr)
    {
        const DWORD extra = terminator ? sizeof(WCHAR) : 0;
        char *at = (used + bytes + extra <= size) ? base + used : nullptr;
        if (at) {
            memcpy(at, data, bytes);
            if (terminator)
                memcpy(at + bytes, terminator, extra);
        }
        used += bytes + extra;
        return at;
    }

    bool fits(LPDWORD needed) const
    {
        if (needed)
            *needed = used;
        return used <= size;
    }

private:
    char *base;
    DWORD size;
    DWORD used;
};

// --- Handles, creation, deletion and configuration -------------------------

SC_HANDLE OpenSCManagerW(LPCWSTR machine, LPCWSTR, DWORD access)
{
    if (machine && *machine)
        return failNull<ScmHandle>(ErrorAccessDenied); // only the local computer
    if (!Database())
        return failNull<ScmHandle>(ErrorAccessDenied);
    return new ScmHandle{ScmHandle::Manager, QString(), access};
}

SC_HANDLE OpenServiceW(SC_HANDLE manager, LPCWSTR name, DWORD access)
{
    if (!isKind(manager, ScmHandle::Manager))
        return failNull<ScmHandle>(ErrorInvalidHandle);
    const QString service = fromWide(name);
    Database db;
    if (!db)
        return failNull<ScmHandle>(ErrorAccessDenied);
    if (!db.load(service))
        return failNull<ScmHandle>(ErrorServiceDoesNotExist);
    return new ScmHandle{ScmHandle::Service, service, access};
}

BOOL CloseServiceHandle(SC_HANDLE handle)
{
    if (!handle)
        return fail(ErrorInvalidHandle);
    delete handle;
    return 1;
}

SC_HANDLE CreateServiceW(SC_HANDLE manager, LPCWSTR name, LPCWSTR displayName, DWORD access,
                         DWORD serviceType, DWORD startType, DWORD, LPCWSTR path, LPCWSTR, LPDWORD,
                         LPCWSTR, LPCWSTR account, LPCWSTR)
{
    if (!isKind(manager, ScmHandle::Manager))
        return failNull<ScmHandle>(ErrorInvalidHandle);
    if (!(manager->access & Scm::ManagerCreateService))
        return failNull<ScmHandle>(ErrorAccessDenied);
    if (!name || !*name || !path || !*path)
        return failNull<ScmHandle>(ErrorInvalidParameter);
    Record r;
    r.name = fromWide(name);
    Database db;
    if (!db)
        return failNull<ScmHandle>(ErrorAccessDenied);
    if (std::optional<Record> existing = db.load(r.name))
        return failNull<ScmHandle>(existing->deletePending ? ErrorServiceMarkedForDelete : ErrorServiceExists);
    r.displayName = displayName ? fromWide(displayName) : r.name;
    r.path = fromWide(path);
    r.account = fromWide(account);
    r.serviceType = serviceType;
    r.startType = startType;
    r.status = {serviceType, Scm::StateStopped, 0, 0, 0, 0, 0};
    if (!db.store(r))
        return failNull<ScmHandle>(ErrorAccessDenied);
    return new ScmHandle{ScmHandle::Service, r.name, access};
}


BOOL DeleteService(SC_HANDLE handle)
{
    Database db;
    std::optional<Record> r = serviceRecord(db, handle, Scm::ServiceDelete);
    if (!r)
        return 0;
    if (r->deletePending)
        return fail(ErrorServiceMarkedForDelete);
    r->deletePending = true; // removed at once if stopped, else when it stops
    return db.store(*r) ? 1 : fail(ErrorAccessDenied);
}

BOOL QueryServiceStatus(SC_HANDLE handle, LPSERVICE_STATUS status)
{
    Database db;
    std::optional<Record> r = serviceRecord(db, handle, Scm::ServiceQueryStatus);
    if (!r)
        return 0;
    *status = r->status;
    return 1;
}

BOOL QueryServiceConfigW(SC_HANDLE handle, LPQUERY_SERVICE_CONFIGW config, DWORD size, LPDWORD needed)
{
    Database db;
    std::optional<Record> r = serviceRecord(db, handle, Scm::ServiceQueryConfig);
    if (!r)
        return 0;
    QUERY_SERVICE_CONFIGW c = {r->serviceType, r->startType, Scm::ErrorNormal, nullptr, nullptr, 0,
                               nullptr, nullptr, nullptr};
    BufferWriter writer(config, size, sizeof(c));
    c.lpBinaryPathName = writer.add(r->path);
    c.lpLoadOrderGroup = writer.add(QString());
    c.lpDependencies = writer.add(QString());
    c.lpServiceStartName = writer.add(r->account.isEmpty() ? QStringLiteral("LocalSystem") : r->account);
    c.lpDisplayName = writer.add(r->displayName);
    if (!writer.fits(needed))
        return fail(ErrorInsufficientBuffer);
    *config = c;
    return 1;
}

// A structure without strings, Windows style.
template <typename Info>
BOOL writeInfo(const Info &info, LPBYTE buffer, DWORD size, LPDWORD needed)
{
    if (!BufferWriter(buffer, size, sizeof(info)).fits(needed))
        return fail(ErrorInsufficientBuffer);
    memcpy(buffer, &info, sizeof(info));
    return 1;
}

BOOL writeDescription(const Record &r, LPBYTE buffer, DWORD size, LPDWORD needed)
{
    SERVICE_DESCRIPTIONW d = {nullptr};
    BufferWriter writer(buffer, size, sizeof(d));
    if (!r.description.isEmpty())
        d.lpDescription = writer.add(r.description);
    if (!writer.fits(needed))
        return fail(ErrorInsufficientBuffer);
    memcpy(buffer, &d, sizeof(d));
    return 1;
}

BOOL writeFailureActions(const Record &r, LPBYTE buffer, DWORD size, LPDWORD needed)
{
    SERVICE_FAILURE_ACTIONSW f = {r.resetPeriod, nullptr, nullptr, DWORD(r.failureActions.size()), nullptr};
    BufferWriter writer(buffer, size, sizeof(f));
    if (!r.failureActions.isEmpty()) {
        f.lpsaActions = static_cast<SC_ACTION *>(
            writer.add(r.failureActions.constData(), DWORD(r.failureActions.size() * sizeof(SC_ACTION))));
    }
    if (!writer.fits(needed))
        return fail(ErrorInsufficientBuffer);
    memcpy(buffer, &f, sizeof(f));
    return 1;
}

BOOL QueryServiceConfig2W(SC_HANDLE handle, DWORD level, LPBYTE buffer, DWORD size, LPDWORD needed)
{
    Database db;
    std::optional<Record> r = serviceRecord(db, handle, Scm::ServiceQueryConfig);
    if (!r)
        return 0;
    switch (level) {
    case Scm::DescriptionLevel:
        return writeDescription(*r, buffer, size, needed);
    case Scm::FailureActionsLevel:
        return writeFailureActions(*r, buffer, size, needed);
    case Scm::DelayedAutoStartLevel:
        return writeInfo(SERVICE_DELAYED_AUTO_START_INFO{r->delayedAutoStart}, buffer, size, needed);
    case Scm::FailureActionsFlagLevel:
        return writeInfo(SERVICE_FAILURE_ACTIONS_FLAG{r->failureActionsOnNonCrash}, buffer, size, needed);
    default:
        return fail(ErrorInvalidLevel);
    }
}

// More than any recovery plan needs; Windows acts on the first three anyway.
const DWORD MaxFailureActions = 16;

// As on Windows: without an action list, the actions and the reset period stay
// as they are; a restart needs start access to the service.
BOOL setFailureActions(Record &r, const SERVICE_FAILURE_ACTIONSW &info, DWORD access)
{
    if (!info.lpsaActions)
        return 1;
    if (info.cActions > MaxFailureActions)
        return fail(ErrorInvalidParameter);
    QVector<SC_ACTION> actions;
    for (DWORD i = 0; i < info.cActions; ++i) {
        const SC_ACTION &action = info.lpsaActions[i];
        if (action.Type > SC_ACTION_RUN_COMMAND)
            return fail(ErrorInvalidParameter);
        if (action.Type == SC_ACTION_RESTART && !(access & Scm::ServiceStart))
            return fail(ErrorAccessDenied);
        actions.append(action);
    }
    r.failureActions = actions;
    r.resetPeriod = info.dwResetPeriod;
    return 1;
}

BOOL changeConfig(Record &r, DWORD level, LPVOID info, DWORD access)
{
    switch (level) {
    case Scm::DescriptionLevel:
        if (const WCHAR *text = static_cast<SERVICE_DESCRIPTIONW *>(info)->lpDescription)
            r.description = fromWide(text);
        return 1;
    case Scm::FailureActionsLevel:
        return setFailureActions(r, *static_cast<SERVICE_FAILURE_ACTIONSW *>(info), access);
    case Scm::DelayedAutoStartLevel:
        r.delayedAutoStart = static_cast<SERVICE_DELAYED_AUTO_START_INFO *>(info)->fDelayedAutostart != 0;
        return 1;
    case Scm::FailureActionsFlagLevel:
        r.failureActionsOnNonCrash =
            static_cast<SERVICE_FAILURE_ACTIONS_FLAG *>(info)->fFailureActionsOnNonCrashFailures != 0;
        return 1;
    default:
        return fail(ErrorInvalidLevel);
    }
}

BOOL ChangeServiceConfig2W(SC_HANDLE handle, DWORD level, LPVOID info)
{
    Database db;
    std::optional<Record> r = serviceRecord(db, handle, Scm::ServiceChangeConfig);
    if (!r)
        return 0;
    if (!info)
        return fail(ErrorInvalidParameter);
    if (!changeConfig(*r, level, info, handle->access))
        return 0;
    return db.store(*r) ? 1 : fail(ErrorAccessDenied);
}

// --- Event log: readable lines in a file of the database directory ---------

struct EventSource
{
    QString name;
};

HANDLE RegisterEventSourceW(LPCWSTR server, LPCWSTR source)
{
    if (server && *server)
        return failNull<void>(ErrorAccessDenied);
    return new EventSource{fromWide(source)};
}

BOOL DeregisterEventSource(HANDLE handle)
{
    if (!handle)
        return fail(ErrorInvalidHandle);
    delete static_cast<EventSource *>(handle);
    return 1;
}

QString eventTypeName(WORD type)
{
    switch (type) {
    case 0: return QStringLiteral("Success");
    case 1: return QStringLiteral("Error");
    case 2: return QStringLiteral("Warning");
    case 4: return QStringLiteral("Information");
    case 8: return QStringLiteral("AuditSuccess");
    case 16: return QStringLiteral("AuditFailure");
    default: return QStringLiteral("Type%1").arg(type);
    }
}

BOOL ReportEventW(HANDLE handle, WORD type, WORD category, DWORD id, PSID, WORD count,
                  DWORD dataSize, LPCWSTR *strings, LPVOID data)
{
    if (!handle)
        return fail(ErrorInvalidHandle);
    QStringList texts;
    for (WORD i = 0; i < count; ++i)
        texts.append(fromWide(strings[i]));
    QString line = QStringLiteral("%1 %2 [%3] id=%4 category=%5: %6")
                       .arg(QDateTime::currentDateTime().toString(Qt::ISODate), eventTypeName(type),
                            static_cast<EventSource *>(handle)->name)
                       .arg(id)
                       .arg(category)
                       .arg(texts.join(QLatin1String(" | ")));
    if (dataSize && data) {
        line += QLatin1String(" data=")
                + QString::fromLatin1(QByteArray(static_cast<const char *>(data), int(dataSize)).toHex());
    }
    Database db; // the database lock also serialises the log
    const QString path = db.root + QLatin1String("/eventlog.txt");
    QFile file(path);
    if (!db || !createPrivateFile(path) || !file.open(QIODevice::WriteOnly | QIODevice::Append))
        return fail(ErrorAccessDenied);
    file.write(line.toUtf8() + '\n');
    return 1;
}

const char *errorText(DWORD code)
{
    switch (code) {
    case ErrorSuccess: return "The operation completed successfully.";
    case ErrorFileNotFound: return "The system cannot find the file.";
    case ErrorAccessDenied: return "Access is denied.";
    case ErrorInvalidHandle: return "The handle is invalid.";
    case ErrorInvalidParameter: return "The parameter is incorrect.";
    case ErrorInsufficientBuffer: return "The data area passed to a system call is too small.";
    case ErrorInvalidLevel: return "The system call level is not correct.";
    case ErrorInvalidServiceControl: return "The requested control is not valid for this service.";
    case ErrorServiceRequestTimeout: return "The service did not respond to the start or control request in a timely fashion.";
    case ErrorServiceNoThread: return "A thread could not be created for the service.";
    case ErrorServiceAlreadyRunning: return "An instance of the service is already running.";
    case ErrorServiceDisabled: return "The service cannot be started, either because it is disabled or because it has no enabled devices associated with it.";
    case ErrorServiceDoesNotExist: return "The named service does not exist as an installed service.";
    case ErrorServiceCannotAcceptCtrl: return "The service cannot accept control messages at this time.";
    case ErrorServiceNotActive: return "The service has not been started.";
    case Scm::ErrorNotConnectedToManager: return "The service process could not connect to the service controller.";
    case ErrorProcessAborted: return "The process terminated unexpectedly.";
    case ErrorServiceMarkedForDelete: return "The named service has been marked for deletion.";
    case ErrorServiceExists: return "The named service already exists.";
    case ErrorServiceNotInExe: return "The executable program that this service is configured to run in does not implement the service.";
    default: return nullptr;
    }
}

} // namespace
} // namespace ScmSubstitute

using namespace ScmSubstitute;

bool resolveScmFunctions()
{
    scmFunctions() = {RegisterServiceCtrlHandlerW, SetServiceStatus, ChangeServiceConfig2W, CloseServiceHandle,
             CreateServiceW, OpenSCManagerW, DeleteService, OpenServiceW, QueryServiceStatus,
             StartServiceCtrlDispatcherW, StartServiceW, ControlService, DeregisterEventSource,
             ReportEventW, RegisterEventSourceW, QueryServiceConfigW, QueryServiceConfig2W};
    return true;
}

DWORD GetLastError()
{
    return lastError;
}

void SetLastError(DWORD code)
{
    lastError = code;
}

void Sleep(DWORD milliseconds)
{
    QThread::msleep(milliseconds);
}

DWORD GetModuleFileNameW(HMODULE, LPWSTR buffer, DWORD size)
{
    const QString path = QFileInfo(QStringLiteral("/proc/self/exe")).symLinkTarget();
    if (path.isEmpty())
        return fail(ErrorFileNotFound);
    // As on Windows, a path that does not fit is cut to size - 1 characters
    // and the result is size: the caller retries with a larger buffer.
    if (DWORD(path.size()) >= size) {
        if (size) {
            memcpy(buffer, path.utf16(), (size - 1) * sizeof(WCHAR));
            buffer[size - 1] = 0;
        }
        lastError = ErrorInsufficientBuffer;
        return size;
    }
    memcpy(buffer, path.utf16(), (path.size() + 1) * sizeof(WCHAR));
    return DWORD(path.size());
}

QString scmErrorText(DWORD code)
{
    if (const char *text = errorText(code))
        return QString::fromLatin1(text);
    return QStringLiteral("Unknown error %1").arg(code);
}

void scmWarning(DWORD code, const char *text)
{
    qWarning("%s (%s)", text, qPrintable(scmErrorText(code)));
}
