// The substitute control manager's database: a private folder of JSON
// records, one per service, and the lock every change is made under.

#include "scmsubstitute_p.h"

#include <QCryptographicHash>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QSaveFile>
#include <QThread>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace ScmSubstitute {

namespace {

// Every step under the lock is a few file operations: a lock held this long
// belongs to a process that hangs.
const int LockTimeoutMs = 5000;
// A lock file this old is removed unless its holder still has it open (which
// QLockFile tells by a file lock): so a holder killed before it wrote its
// process id into the file costs a second, not QLockFile's 30.
const int StaleLockMs = 1000;

// Creates the folder for its owner alone. An existing folder is used as it
// is: it may be one the user chose and shares, the files in it stay private.
bool ensureFolder(const QString &root)
{
    if (QFileInfo(root).isDir())
        return true;
    QDir().mkpath(QFileInfo(root).absolutePath());
    return ::mkdir(QFile::encodeName(root).constData(), 0700) == 0
           || (errno == EEXIST && QFileInfo(root).isDir());
}

} // namespace

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

bool createPrivateFile(const QString &path)
{
    // Created 0600 whatever the umask, so nobody else can open it even for a
    // moment; fchmod tightens a file left by an older version.
    const int fd = ::open(QFile::encodeName(path).constData(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0)
        return false;
    const bool ok = ::fchmod(fd, 0600) == 0;
    ::close(fd);
    return ok;
}

QJsonObject Record::toJson() const
{
    QJsonArray words;
    for (DWORD w : {status.dwServiceType, status.dwCurrentState, status.dwControlsAccepted,
                    status.dwWin32ExitCode, status.dwServiceSpecificExitCode, status.dwCheckPoint,
                    status.dwWaitHint})
        words.append(qint64(w));
    QJsonArray actions;
    for (const SC_ACTION &action : failureActions)
        actions.append(QJsonArray{qint64(action.Type), qint64(action.Delay)});
    return {{"name", name}, {"displayName", displayName}, {"description", description},
            {"path", path}, {"account", account}, {"serviceType", qint64(serviceType)},
            {"startType", qint64(startType)}, {"deletePending", deletePending},
            {"status", words}, {"pid", pid}, {"control", control},
            {"launchToken", launchToken}, {"startArgs", QJsonArray::fromStringList(startArgs)},
            {"resetPeriod", qint64(resetPeriod)}, {"failureActions", actions},
            {"failureActionsOnNonCrash", failureActionsOnNonCrash}, {"delayedAutoStart", delayedAutoStart}};
}

Record Record::fromJson(const QJsonObject &o)
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
    r.resetPeriod = DWORD(o.value(QLatin1String("resetPeriod")).toDouble());
    for (const QJsonValue &v : o.value(QLatin1String("failureActions")).toArray()) {
        const QJsonArray action = v.toArray();
        r.failureActions.append({SC_ACTION_TYPE(action.at(0).toInt()), DWORD(action.at(1).toDouble())});
    }
    r.failureActionsOnNonCrash = o.value(QLatin1String("failureActionsOnNonCrash")).toBool();
    r.delayedAutoStart = o.value(QLatin1String("delayedAutoStart")).toBool();
    return r;
}

void Record::markStopped()
{
    status.dwCurrentState = Scm::StateStopped;
    status.dwControlsAccepted = 0;
    control.clear();
    pid = 0;
}

QMutex Database::processLock;

Database::Database()
    : root(databaseDir()), threads(processLock), lockPath(root + QLatin1String("/scm.lock")),
      lock(lockPath)
{
    if (!ensureFolder(root)) {
        report(QStringLiteral("cannot create the folder"));
        return;
    }
    // Short steady retries (QLockFile::lock() backs off to seconds), bounded,
    // and none at all when the folder cannot be written.
    lock.setStaleLockTime(StaleLockMs);
    QElapsedTimer waited;
    waited.start();
    while (!lock.tryLock(0)) {
        if (lock.error() != QLockFile::LockFailedError) {
            const int reason = ::access(QFile::encodeName(root).constData(), W_OK) == 0 ? EACCES : errno;
            report(QStringLiteral("cannot write to it (%1)").arg(qt_error_string(reason)));
            return;
        }
        if (waited.elapsed() >= LockTimeoutMs) {
            report(QStringLiteral("%1 has been held for %2 s").arg(lockPath).arg(LockTimeoutMs / 1000));
            return;
        }
        QThread::msleep(5);
    }
    QFile::setPermissions(lockPath, QFileDevice::ReadOwner | QFileDevice::WriteOwner);
    locked = true;
}

Database::~Database() = default;

void Database::report(const QString &problem)
{
    // Once per process and problem: callers open the database again and again.
    static QString reported;
    const QString text = QStringLiteral("Service control manager: the database folder %1 is not usable: %2")
                             .arg(root, problem);
    if (text != reported)
        qWarning("%s", qPrintable(text));
    reported = text;
}

std::optional<Record> Database::load(const QString &name)
{
    if (!locked)
        return std::nullopt;
    QFile file(fileFor(name));
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    // An empty or broken file is a record whose creation did not finish.
    const QJsonDocument document = QJsonDocument::fromJson(file.readAll());
    if (!document.isObject())
        return std::nullopt;
    Record r = Record::fromJson(document.object());
    // A process that died without reporting stopped counts as stopped.
    if (!r.stopped() && !processAlive(r.pid)) {
        r.markStopped();
        if (!store(r))
            return std::nullopt;
    }
    return r;
}

bool Database::store(const Record &r)
{
    if (!locked)
        return false;
    const QString path = fileFor(r.name);
    if (r.deletePending && r.stopped())
        return QFile::remove(path);
    // QSaveFile keeps its new file private from the start, and gives it the
    // replaced file's mode, only when there is a file to replace.
    if (!createPrivateFile(path))
        return false;
    QSaveFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(QJsonDocument(r.toJson()).toJson()) >= 0 && file.commit();
}

bool Database::update(const QString &name, const std::function<void(Record &)> &change)
{
    std::optional<Record> r = load(name);
    if (!r)
        return false;
    change(*r);
    return store(*r);
}

QString Database::keyFor(const QString &name)
{
    return QString::fromLatin1(QCryptographicHash::hash(name.toUtf8(), QCryptographicHash::Sha1).toHex());
}

QString Database::fileFor(const QString &name) const
{
    return root + QLatin1Char('/') + keyFor(name) + QLatin1String(".svc");
}

} // namespace ScmSubstitute
