// The substitute control manager's control channel: the dispatcher in the
// service process, which listens on a local socket of the database folder,
// and ControlService, which sends it one request per connection.

#include "scmsubstitute_p.h"

#include <QDataStream>
#include <QLocalServer>
#include <QLocalSocket>
#include <QThread>
#include <atomic>
#include <memory>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

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

namespace ScmSubstitute {

const char LaunchServiceVar[] = "TARN_SCM_SERVICE";
const char LaunchTokenVar[] = "TARN_SCM_LAUNCH";

namespace {

const int ControlTimeoutMs = 30000;
const int RequestReadTimeoutMs = 5000;

ScmStatusHandle dispatcher;

// Controls come from the service's own user, or from root.
bool trustedPeer(const QLocalSocket *socket)
{
    ucred peer = {};
    socklen_t size = sizeof(peer);
    return ::getsockopt(int(socket->socketDescriptor()), SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0
           && (peer.uid == ::geteuid() || peer.uid == 0);
}

// The reply to one request: an error code and the status record.
void reply(QLocalSocket *socket, DWORD error, const SERVICE_STATUS &status)
{
    QDataStream out(socket);
    out << quint32(error) << quint32(status.dwServiceType) << quint32(status.dwCurrentState)
        << quint32(status.dwControlsAccepted) << quint32(status.dwWin32ExitCode)
        << quint32(status.dwServiceSpecificExitCode) << quint32(status.dwCheckPoint)
        << quint32(status.dwWaitHint);
    socket->waitForBytesWritten(RequestReadTimeoutMs);
    socket->disconnectFromServer();
}

// One control request from ControlService: code in, error and status out.
void serveRequest(QLocalSocket *socket)
{
    if (!trustedPeer(socket)) {
        reply(socket, ErrorAccessDenied, SERVICE_STATUS());
        return;
    }
    while (socket->bytesAvailable() < qint64(sizeof(quint32)))
        if (!socket->waitForReadyRead(RequestReadTimeoutMs))
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
    reply(socket, error, status);
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

BOOL StartServiceCtrlDispatcherW(const SERVICE_TABLE_ENTRYW *table)
{
    const SERVICE_TABLE_ENTRYW *entry = nullptr;
    Record record;
    if (const DWORD error = claimLaunch(table, &entry, &record))
        return fail(error);

    // The socket is its user's alone, whatever the umask.
    QLocalServer server;
    server.setSocketOptions(QLocalServer::UserAccessOption);
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

} // namespace ScmSubstitute
