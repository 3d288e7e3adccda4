// The substitute control manager's StartServiceW: launches the service's
// program detached and waits until its dispatcher has connected.

#include "scmsubstitute_p.h"

#include <QElapsedTimer>
#include <QProcess>
#include <QThread>
#include <QUuid>
#include <unistd.h>

namespace ScmSubstitute {

namespace {

const int StartTimeoutMs = 30000;

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

// Records the start request: start pending, the arguments and a new launch
// token. 0 or a Windows error code.
DWORD beginStart(SC_HANDLE handle, DWORD argc, LPCWSTR *argv, Record *record)
{
    Database db;
    std::optional<Record> found = serviceRecord(db, handle, Scm::ServiceStart);
    if (!found)
        return GetLastError();
    Record &r = *found;
    if (r.deletePending)
        return ErrorServiceMarkedForDelete;
    if (r.startType == Scm::Disabled)
        return ErrorServiceDisabled;
    if (!r.stopped())
        return ErrorServiceAlreadyRunning;
    r.startArgs.clear();
    for (DWORD i = 0; i < argc; ++i)
        r.startArgs.append(fromWide(argv[i]));
    r.launchToken = QUuid::createUuid().toString(QUuid::WithoutBraces);
    r.status = {r.serviceType, Scm::StateStartPending, 0, 0, 0, 0, 0};
    r.pid = ::getpid(); // holds the pending state until the launch is known
    if (!db.store(r))
        return ErrorAccessDenied;
    *record = r;
    return ErrorSuccess;
}

// Launches the program of the record's binary path; its process id, or 0.
qint64 launch(const Record &r)
{
    // Like a real service process it inherits nothing from the command line
    // but what the manager hands it; the name and arguments also appear on
    // the command line so that ps shows which service a process runs.
    const QStringList command = splitBinaryPath(r.path);
    QProcess process;
    process.setProgram(command.first());
    process.setArguments(command.mid(1) + QStringList(r.name) + r.startArgs);
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QLatin1String(LaunchServiceVar), r.name);
    env.insert(QLatin1String(LaunchTokenVar), r.launchToken);
    env.insert(QStringLiteral("TARN_SCM_ROOT"), databaseDir());
    process.setProcessEnvironment(env);
    // No console, as for a real service: its output goes to a log file.
    const QString output = QStringLiteral("%1/%2.log").arg(databaseDir(), Database::keyFor(r.name));
    if (!createPrivateFile(output))
        return 0;
    process.setStandardInputFile(QProcess::nullDevice());
    process.setStandardOutputFile(output, QIODevice::Append);
    process.setStandardErrorFile(output, QIODevice::Append);
    qint64 pid = 0;
    return process.startDetached(&pid) ? pid : 0;
}

// Marks the launch stopped unless its dispatcher connected after all.
void abandonLaunch(const Record &r)
{
    Database().update(r.name, [&](Record &rec) {
        if (rec.launchToken == r.launchToken && rec.control.isEmpty())
            rec.markStopped();
    });
}

} // namespace

BOOL StartServiceW(SC_HANDLE handle, DWORD argc, LPCWSTR *argv)
{
    Record r;
    if (const DWORD error = beginStart(handle, argc, argv, &r))
        return fail(error);
    const qint64 pid = launch(r);
    if (!pid) {
        abandonLaunch(r);
        return fail(ErrorFileNotFound);
    }
    Database().update(r.name, [&](Record &rec) {
        if (rec.launchToken == r.launchToken && rec.control.isEmpty())
            rec.pid = pid;
    });
    if (!waitForDispatcher(r.name, r.launchToken, pid)) {
        abandonLaunch(r);
        return fail(ErrorServiceRequestTimeout);
    }
    return 1;
}

} // namespace ScmSubstitute
