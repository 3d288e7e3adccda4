#ifndef SCMSUBSTITUTE_P_H
#define SCMSUBSTITUTE_P_H

// What the parts of the substitute control manager share: error codes, the
// database of service records, and the table functions that live in a part of
// their own (launch in scmlaunch.cpp, control channel in scmcontrol.cpp).

#include "scmapi.h"

#include <QJsonObject>
#include <QLockFile>
#include <QMutex>
#include <QVector>
#include <QStringList>
#include <functional>
#include <mutex>
#include <optional>

namespace ScmSubstitute {

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

// Sets the thread's last error; returns the failure value.
BOOL fail(DWORD code);
template <typename T>
T *failNull(DWORD code)
{
    fail(code);
    return nullptr;
}

QString databaseDir();
bool processAlive(qint64 pid);
// Creates the file for its owner alone (0600), or tightens an existing one.
bool createPrivateFile(const QString &path);

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
    // Kept and given back, never acted on: the stand-in restarts nothing.
    DWORD resetPeriod = 0;
    QVector<SC_ACTION> failureActions;
    bool failureActionsOnNonCrash = false;
    bool delayedAutoStart = false;

    QJsonObject toJson() const;
    static Record fromJson(const QJsonObject &o);
    bool stopped() const { return status.dwCurrentState == Scm::StateStopped; }
    void markStopped();
};

// The database: one JSON file per service, replaced atomically, every
// read-modify-write under one lock file shared by all processes. Only the
// owner can read it: it holds launch tokens.
class Database
{
public:
    Database();
    ~Database();

    // False when the folder could not be made or locked; the reason has been
    // written to stderr and every operation fails.
    explicit operator bool() const { return locked; }

    std::optional<Record> load(const QString &name);
    // Saves, or removes a record marked for deletion once it is stopped.
    bool store(const Record &r);
    // Loads, changes and stores one record; false when it does not exist.
    bool update(const QString &name, const std::function<void(Record &)> &change);

    // Names may hold any character, even U+0000: files are named by a hash.
    static QString keyFor(const QString &name);

    const QString root;

private:
    Q_DISABLE_COPY(Database)
    QString fileFor(const QString &name) const;
    void report(const QString &problem);

    static QMutex processLock; // threads of one process queue here, not on the file
    std::lock_guard<QMutex> threads;
    const QString lockPath;
    QLockFile lock;
    bool locked = false;
};

} // namespace ScmSubstitute

struct ScmHandle
{
    enum Kind { Manager, Service } kind;
    QString name;
    DWORD access;
};

namespace ScmSubstitute {

// Checks the handle and its access, then loads the service's record.
std::optional<Record> serviceRecord(Database &db, SC_HANDLE h, DWORD access);

BOOL StartServiceW(SC_HANDLE handle, DWORD argc, LPCWSTR *argv);
BOOL ControlService(SC_HANDLE handle, DWORD code, LPSERVICE_STATUS status);
SERVICE_STATUS_HANDLE RegisterServiceCtrlHandlerW(LPCWSTR name, LPHANDLER_FUNCTION handler);
BOOL SetServiceStatus(SERVICE_STATUS_HANDLE handle, LPSERVICE_STATUS status);
BOOL StartServiceCtrlDispatcherW(const SERVICE_TABLE_ENTRYW *table);

extern const char LaunchServiceVar[];
extern const char LaunchTokenVar[];

} // namespace ScmSubstitute

#endif // SCMSUBSTITUTE_P_H
