// A small service control manager for platforms without one. It implements
// the control-manager functions of the framework's table with Windows'
// contracts and error codes, on a database directory shared by every process
// of the user. See README.md.

#include "scmapi.h"

#ifndef Q_OS_WIN

#include <QCryptographicHash>
#include <QDataStream>
#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocalServer>
#include <QLocalSocket>
#include <QLockFile>
#include <QMutex>
#include <QProcess>
#include <QSaveFile>
#include <QThread>
#include <QUuid>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <functional>
#include <memory>
#include <optional>
#include <unistd.h>
#include <vector>

namespace {

enum : DWORD {
    ErrorSuccess = 0,
    ErrorFileNotFound = 2,
    ErrorAccessDenied = 5,
    ErrorInvalidHandle = 6,
    ErrorInvalidParameter = 87,
    ErrorInsufficientBuffer = 122,
    ErrorInvalidLevel = 124,
    ErrorInvalidServiceControl = 1052,
    ErrorServiceRequestTimeout = 1053,
    ErrorServiceNoThread = 1054,
    ErrorServiceAlreadyRunning = 1056,
    ErrorServiceDisabled = 1058,
    ErrorServiceDoesNotExist = 1060,
    ErrorServiceCannotAcceptCtrl = 1061,
    ErrorServiceNotActive = 1062,
    ErrorProcessAborted = 1067,
    ErrorServiceMarkedForDelete = 1072,
    ErrorServiceExists = 1073,
    ErrorServiceNotInExe = 1083,
};

const char LaunchServiceVar[] = "TARN_SCM_SERVICE";
const char LaunchTokenVar[] = "TARN_SCM_LAUNCH";
const int StartTimeoutMs = 30000;
const int ControlTimeoutMs = 30000;

thread_local DWORD lastError = ErrorSuccess;

BOOL fail(DWORD code)
{
    lastError = code;
    return 0;
}

template <typename T>
T *failNull(DWORD code)
{
    lastError = code;
    return nullptr;
}

QString databaseDir()
{
    const QString root = qEnvironmentVariable("TARN_SCM_ROOT");
    if (!root.isEmpty())
        return root;
    QString state = qEnvironmentVariable("XDG_STATE_HOME");
    if (state.isEmpty())
        state = QDir::homePath() + QLatin1String("/.local/state");
    return state + QLatin1String("/tarn-scm");
}

bool processAlive(qint64 pid)
{
    if (pid <= 0 || (::kill(pid_t(pid), 0) != 0 && errno != EPERM))
        return false;
    // A killed process not yet reaped is dead all the same.
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly))
        return true;
    const QByteArray line = stat.readAll();
    const int afterName = line.lastIndexOf(')');
    return afterName < 0 || line.mid(afterName + 2, 1) != "Z";
}

// One service's entry in the database.
struct Record
{
    QString name;
    QString displayName;
    QString description;
    QString path;
    QString account;
    DWORD serviceType = 0;
    DWORD startType = 0;
    bool deletePending = false;
    SERVICE_STATUS status = {};
    qint64 pid = 0;
    QString control;      // the dispatcher's local socket, once connected
    QString launchToken;  // identifies the process the last start launched
    QStringList startArgs;

    QJsonObject toJson() const
    {
        QJsonArray words;
        for (DWORD w : {status.dwServiceType, status.dwCurrentState, status.dwControlsAccepted,
                        status.dwWin32ExitCode, status.dwServiceSpecificExitCode,
                        status.dwCheckPoint, status.dwWaitHint})
            words.append(qint64(w));
        return {{"name", name}, {"displayName", displayName}, {"description", description},
                {"path", path}, {"account", account}, {"serviceType", qint64(serviceType)},
                {"startType", qint64(startType)}, {"deletePending", deletePending},
                {"status", words}, {"pid", pid}, {"control", control},
                {"launchToken", launchToken}, {"startArgs", QJsonArray::fromStringList(startArgs)}};
    }

    static Record fromJson(const QJsonObject &o)
    {
        Record r;
        r.name = o.value(QLatin1String("name")).toString();
        r.displayName = o.value(QLatin1String("displayName")).toString();
        r.description = o.value(QLatin1String("description")).toString();
        r.path = o.value(QLatin1String("path")).toString();
        r.account = o.value(QLatin1String("account")).toString();
        r.serviceType = DWORD(o.value(QLatin1String("serviceType")).toDouble());
        r.startType = DWORD(o.value(QLatin1String("startType")).toDouble());
        r.deletePending = o.value(QLatin1String("deletePending")).toBool();
        const QJsonArray w = o.value(QLatin1String("status")).toArray();
        DWORD *words[] = {&r.status.dwServiceType, &r.status.dwCurrentState,
                          &r.status.dwControlsAccepted, &r.status.dwWin32ExitCode,
                          &r.status.dwServiceSpecificExitCode, &r.status.dwCheckPoint,
                          &r.status.dwWaitHint};
        for (int i = 0; i < 7 && i < w.size(); ++i)
            *words[i] = DWORD(w.at(i).toDouble());
        r.pid = qint64(o.value(QLatin1String("pid")).toDouble());
        r.control = o.value(QLatin1String("control")).toString();
        r.launchToken = o.value(QLatin1String("launchToken")).toString();
        for (const QJsonValue &v : o.value(QLatin1String("startArgs")).toArray())
            r.startArgs.append(v.toString());
        return r;
    }

    bool stopped() const { return status.dwCurrentState == Scm::StateStopped; }

    void markStopped()
    {
        status.dwCurrentState = Scm::StateStopped;
        status.dwControlsAccepted = 0;
        control.clear();
        pid = 0;
    }
};

// The database: one JSON file per service, replaced atomically, every
// read-modify-write under one lock file shared by all processes.
class Database
{
    static QMutex processLock; // threads of one process queue here, not on the file
    QMutexLocker threads;

public:
    Database() : threads(&processLock), root(databaseDir()), lock(root + QLatin1String("/scm.lock"))
    {
        QDir().mkpath(root);
        // Short steady retries: QLockFile::lock() backs off to seconds.
        while (!lock.tryLock(0))
            QThread::msleep(5);
    }

    const QString root;

    std::optional<Record> load(const QString &name)
    {
        QFile file(fileFor(name));
        if (!file.open(QIODevice::ReadOnly))
            return std::nullopt;
        Record r = Record::fromJson(QJsonDocument::fromJson(file.readAll()).object());
        // A process that died without reporting stopped counts as stopped.
        if (!r.stopped() && !processAlive(r.pid)) {
            r.markStopped();
            if (!store(r))
                return std::nullopt;
        }
        return r;
    }

    // Saves, or removes a record marked for deletion once it is stopped.
    bool store(const Record &r)
    {
        if (r.deletePending && r.stopped())
            return QFile::remove(fileFor(r.name));
        QSaveFile file(fileFor(r.name));
        return file.open(QIODevice::WriteOnly)
               && file.write(QJsonDocument(r.toJson()).toJson()) >= 0 && file.commit();
    }

    // Loads, changes and stores one record; false when it does not exist.
    bool update(const QString &name, const std::function<void(Record &)> &change)
    {
        std::optional<Record> r = load(name);
        if (!r)
            return false;
        change(*r);
        return store(*r);
    }

public:
    // Names may hold any character, even U+0000: files are named by a hash.
    static QString keyFor(const QString &name)
    {
        return QString::fromLatin1(QCryptographicHash::hash(name.toUtf8(), QCryptographicHash::Sha1).toHex());
    }

private:
    QString fileFor(const QString &name) const
    {
        return root + QLatin1Char('/') + keyFor(name) + QLatin1String(".svc");
    }

    QLockFile lock;
};

QMutex Database::processLock;

} // namespace

struct ScmHandle
{
    enum Kind { Manager, Service } kind;
    QString name;
    DWORD access;
};

namespace {

bool isKind(SC_HANDLE h, ScmHandle::Kind kind)
{
    return h && h->kind == kind;
}

// Checks the handle and its access, then loads the service's record.
std::optional<Record> serviceRecord(Database &db, SC_HANDLE h, DWORD access)
{
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
        const DWORD bytes = DWORD(text.size() + 1) * sizeof(WCHAR);
        LPWSTR at = (used + bytes <= size) ? reinterpret_cast<LPWSTR>(base + used) : nullptr;
        if (at) {
            memcpy(at, text.utf16(), bytes - sizeof(WCHAR));
            at[text.size()] = 0;
        }
        used += bytes;
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

DWORD accessForControl(DWORD code)
{
    switch (code) {
    case Scm::ControlStop:
        return Scm::ServiceStop;
    case Scm::ControlPause:
    case Scm::ControlContinue:
        return Scm::ServicePauseContinue;
    case Scm::ControlInterrogate:
        return Scm::ServiceInterrogate;
    default:
        return (code >= Scm::FirstUserControl && code <= Scm::LastUserControl)
                   ? DWORD(Scm::ServiceUserDefinedControl) : 0;
    }
}

bool controlAccepted(DWORD code, DWORD accepted)
{
    if (code == Scm::ControlStop)
        return accepted & Scm::AcceptStop;
    if (code == Scm::ControlPause || code == Scm::ControlContinue)
        return accepted & Scm::AcceptPauseContinue;
    return true;
}

} // namespace

// The dispatcher of a service process; its address is the status handle.
struct ScmStatusHandle
{
    QString serviceName;
    std::atomic<LPHANDLER_FUNCTION> handler{nullptr};
    std::atomic<bool> active{false};
    std::atomic<bool> stopped{false};
    QMutex statusMutex;
    SERVICE_STATUS status = {};
};

namespace {

ScmStatusHandle dispatcher;

// One control request from ControlService: code in, error and status out.
void serveRequest(QLocalSocket *socket)
{
    while (socket->bytesAvailable() < qint64(sizeof(quint32)))
        if (!socket->waitForReadyRead(5000))
            return;
    QDataStream in(socket);
    quint32 code = 0;
    in >> code;
    DWORD error = ErrorServiceCannotAcceptCtrl;
    if (LPHANDLER_FUNCTION handler = dispatcher.handler) {
        handler(code);
        error = ErrorSuccess;
    }
    SERVICE_STATUS status;
    {
        QMutexLocker locker(&dispatcher.statusMutex);
        status = dispatcher.status;
    }
    QDataStream out(socket);
    out << quint32(error) << quint32(status.dwServiceType) << quint32(status.dwCurrentState)
        << quint32(status.dwControlsAccepted) << quint32(status.dwWin32ExitCode)
        << quint32(status.dwServiceSpecificExitCode) << quint32(status.dwCheckPoint)
        << quint32(status.dwWaitHint);
    socket->waitForBytesWritten(5000);
    socket->disconnectFromServer();
}

// --- The seventeen table functions ---------------------------------------

SC_HANDLE OpenSCManagerW(LPCWSTR machine, LPCWSTR, DWORD access)
{
    if (machine && *machine)
        return failNull<ScmHandle>(ErrorAccessDenied); // only the local computer
    if (!QDir().mkpath(databaseDir()))
        return failNull<ScmHandle>(ErrorAccessDenied);
    return new ScmHandle{ScmHandle::Manager, QString(), access};
}

SC_HANDLE OpenServiceW(SC_HANDLE manager, LPCWSTR name, DWORD access)
{
    if (!isKind(manager, ScmHandle::Manager))
        return failNull<ScmHandle>(ErrorInvalidHandle);
    const QString service = fromWide(name);
    Database db;
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

BOOL QueryServiceConfig2W(SC_HANDLE handle, DWORD level, LPBYTE buffer, DWORD size, LPDWORD needed)
{
    Database db;
    std::optional<Record> r = serviceRecord(db, handle, Scm::ServiceQueryConfig);
    if (!r)
        return 0;
    if (level != Scm::DescriptionLevel)
        return fail(ErrorInvalidLevel);
    SERVICE_DESCRIPTIONW d = {nullptr};
    BufferWriter writer(buffer, size, sizeof(d));
    if (!r->description.isEmpty())
        d.lpDescription = writer.add(r->description);
    if (!writer.fits(needed))
        return fail(ErrorInsufficientBuffer);
    memcpy(buffer, &d, sizeof(d));
    return 1;
}

BOOL ChangeServiceConfig2W(SC_HANDLE handle, DWORD level, LPVOID info)
{
    Database db;
    std::optional<Record> r = serviceRecord(db, handle, Scm::ServiceChangeConfig);
    if (!r)
        return 0;
    if (level != Scm::DescriptionLevel)
        return fail(ErrorInvalidLevel);
    if (const WCHAR *text = static_cast<SERVICE_DESCRIPTIONW *>(info)->lpDescription)
        r->description = fromWide(text);
    return db.store(*r) ? 1 : fail(ErrorAccessDenied);
}

// Waits for the launched process's dispatcher; false when it died or timed out.
bool waitForDispatcher(const QString &name, const QString &token, qint64 pid)
{
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < StartTimeoutMs) {
        {
            Database db;
            std::optional<Record> r = db.load(name);
            if (!r || r->launchToken != token)
                return false;
            if (!r->control.isEmpty())
                return true;
        }
        if (!processAlive(pid))
            return false;
        QThread::msleep(20);
    }
    return false;
}

BOOL StartServiceW(SC_HANDLE handle, DWORD argc, LPCWSTR *argv)
{
    const QString token = QUuid::createUuid().toString(QUuid::WithoutBraces);
    Record r;
    {
        Database db;
        std::optional<Record> found = serviceRecord(db, handle, Scm::ServiceStart);
        if (!found)
            return 0;
        r = *found;
        if (r.deletePending)
            return fail(ErrorServiceMarkedForDelete);
        if (r.startType == Scm::Disabled)
            return fail(ErrorServiceDisabled);
        if (!r.stopped())
            return fail(ErrorServiceAlreadyRunning);
        r.startArgs.clear();
        for (DWORD i = 0; i < argc; ++i)
            r.startArgs.append(fromWide(argv[i]));
        r.launchToken = token;
        r.status = {r.serviceType, Scm::StateStartPending, 0, 0, 0, 0, 0};
        r.pid = ::getpid(); // holds the pending state until the launch is known
        if (!db.store(r))
            return fail(ErrorAccessDenied);
    }

    // Like a real service process it inherits nothing from the command line
    // but what the manager hands it; the name and arguments also appear on
    // the command line so that ps shows which service a process runs.
    QProcess process;
    process.setProgram(r.path);
    process.setArguments(QStringList(r.name) + r.startArgs);
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QLatin1String(LaunchServiceVar), r.name);
    env.insert(QLatin1String(LaunchTokenVar), token);
    env.insert(QStringLiteral("TARN_SCM_ROOT"), databaseDir());
    process.setProcessEnvironment(env);
    // No console, as for a real service: its output goes to a log file.
    const QString output = QStringLiteral("%1/%2.log").arg(databaseDir(), Database::keyFor(r.name));
    process.setStandardInputFile(QProcess::nullDevice());
    process.setStandardOutputFile(output, QIODevice::Append);
    process.setStandardErrorFile(output, QIODevice::Append);
    qint64 pid = 0;
    const bool launched = process.startDetached(&pid);
    {
        Database db;
        db.update(r.name, [&](Record &rec) {
            if (rec.launchToken == token && rec.control.isEmpty())
                rec.pid = launched ? pid : 0;
        });
    }
    if (!launched) {
        Database().update(r.name, [](Record &rec) { rec.markStopped(); });
        return fail(ErrorFileNotFound);
    }
    if (!waitForDispatcher(r.name, token, pid)) {
        Database().update(r.name, [&](Record &rec) {
            if (rec.launchToken == token && rec.control.isEmpty())
                rec.markStopped();
        });
        return fail(ErrorServiceRequestTimeout);
    }
    return 1;
}

BOOL ControlService(SC_HANDLE handle, DWORD code, LPSERVICE_STATUS status)
{
    const DWORD access = accessForControl(code);
    if (!access)
        return fail(ErrorInvalidParameter);
    QString control;
    {
        Database db;
        std::optional<Record> r = serviceRecord(db, handle, access);
        if (!r)
            return 0;
        if (r->stopped())
            return fail(ErrorServiceNotActive);
        if (r->status.dwCurrentState == Scm::StateStartPending
            || r->status.dwCurrentState == Scm::StateStopPending || r->control.isEmpty())
            return fail(ErrorServiceCannotAcceptCtrl);
        if (!controlAccepted(code, r->status.dwControlsAccepted))
            return fail(ErrorInvalidServiceControl);
        control = r->control;
    }

    QLocalSocket socket;
    socket.connectToServer(control);
    if (!socket.waitForConnected(ControlTimeoutMs))
        return fail(ErrorServiceNotActive);
    QDataStream(&socket) << quint32(code);
    const qint64 replySize = 8 * sizeof(quint32);
    while (socket.bytesAvailable() < replySize) {
        if (!socket.waitForReadyRead(ControlTimeoutMs))
            return fail(ErrorServiceRequestTimeout);
    }
    QDataStream in(&socket);
    quint32 error, words[7];
    in >> error;
    for (quint32 &w : words)
        in >> w;
    if (error != ErrorSuccess)
        return fail(error);
    *status = {words[0], words[1], words[2], words[3], words[4], words[5], words[6]};
    return 1;
}

SERVICE_STATUS_HANDLE RegisterServiceCtrlHandlerW(LPCWSTR name, LPHANDLER_FUNCTION handler)
{
    if (!dispatcher.active || fromWide(name) != dispatcher.serviceName)
        return failNull<ScmStatusHandle>(ErrorServiceDoesNotExist);
    dispatcher.handler = handler;
    return &dispatcher;
}

BOOL SetServiceStatus(SERVICE_STATUS_HANDLE handle, LPSERVICE_STATUS status)
{
    if (handle != &dispatcher || !dispatcher.active)
        return fail(ErrorInvalidHandle);
    {
        QMutexLocker locker(&dispatcher.statusMutex);
        dispatcher.status = *status;
    }
    const bool stopped = status->dwCurrentState == Scm::StateStopped;
    Database().update(dispatcher.serviceName, [&](Record &r) {
        r.status = *status;
        if (stopped)
            r.markStopped();
        r.status.dwWin32ExitCode = status->dwWin32ExitCode;
    });
    if (stopped)
        dispatcher.stopped = true;
    return 1;
}

// Claims the launch this process was started for; 0 or a Windows error code.
DWORD claimLaunch(const SERVICE_TABLE_ENTRYW *table, const SERVICE_TABLE_ENTRYW **entry, Record *record)
{
    const QString name = qEnvironmentVariable(LaunchServiceVar);
    const QString token = qEnvironmentVariable(LaunchTokenVar);
    if (name.isEmpty() || token.isEmpty())
        return Scm::ErrorNotConnectedToManager;
    if (dispatcher.active)
        return ErrorServiceAlreadyRunning;
    std::optional<Record> r = Database().load(name);
    if (!r || r->launchToken != token || !r->control.isEmpty())
        return Scm::ErrorNotConnectedToManager;
    // Child processes must not take themselves for the service.
    qunsetenv(LaunchServiceVar);
    qunsetenv(LaunchTokenVar);
    for (*entry = table; (*entry)->lpServiceName; ++*entry) {
        if (fromWide((*entry)->lpServiceName) == name) {
            *record = *r;
            return ErrorSuccess;
        }
    }
    return ErrorServiceNotInExe;
}

BOOL StartServiceCtrlDispatcherW(const SERVICE_TABLE_ENTRYW *table)
{
    const SERVICE_TABLE_ENTRYW *entry = nullptr;
    Record record;
    if (const DWORD error = claimLaunch(table, &entry, &record))
        return fail(error);

    QLocalServer server;
    const QString socketPath = QStringLiteral("%1/%2.ctl").arg(databaseDir()).arg(::getpid());
    QLocalServer::removeServer(socketPath);
    if (!server.listen(socketPath))
        return fail(ErrorServiceNoThread);
    dispatcher.serviceName = record.name;
    dispatcher.status = record.status;
    dispatcher.active = true;
    Database().update(record.name, [&](Record &r) {
        r.control = socketPath;
        r.pid = ::getpid();
    });

    // serviceMain runs on a thread of its own with the name first.
    const QStringList args = QStringList(record.name) + record.startArgs;
    std::vector<LPWSTR> argv;
    for (const QString &arg : args)
        argv.push_back(const_cast<LPWSTR>(wideText(arg)));
    LPSERVICE_MAIN_FUNCTIONW serviceMain = entry->lpServiceProc;
    std::unique_ptr<QThread> mainThread(QThread::create([&] { serviceMain(DWORD(argv.size()), argv.data()); }));
    mainThread->start();

    while (!dispatcher.stopped) {
        if (!server.waitForNewConnection(50))
            continue;
        while (QLocalSocket *socket = server.nextPendingConnection()) {
            serveRequest(socket);
            delete socket;
        }
    }
    server.close();
    dispatcher.active = false;
    if (!mainThread->wait(1000))
        (void)mainThread.release(); // still blocked; left to the process exit
    return 1;
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
    QFile file(db.root + QLatin1String("/eventlog.txt"));
    if (!file.open(QIODevice::WriteOnly | QIODevice::Append))
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

void fillSubstituteScmFunctions(ScmFunctions &table)
{
    table = {RegisterServiceCtrlHandlerW, SetServiceStatus, ChangeServiceConfig2W, CloseServiceHandle,
             CreateServiceW, OpenSCManagerW, DeleteService, OpenServiceW, QueryServiceStatus,
             StartServiceCtrlDispatcherW, StartServiceW, ControlService, DeregisterEventSource,
             ReportEventW, RegisterEventSourceW, QueryServiceConfigW, QueryServiceConfig2W};
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
    if (path.isEmpty() || size == 0)
        return fail(ErrorFileNotFound);
    const DWORD length = qMin(DWORD(path.size()), size - 1);
    memcpy(buffer, path.utf16(), length * sizeof(WCHAR));
    buffer[length] = 0;
    if (length < DWORD(path.size()))
        lastError = ErrorInsufficientBuffer;
    return length;
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

#endif // !Q_OS_WIN
