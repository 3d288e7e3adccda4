#pragma once

#include <QString>

// A lock that at most one process of the whole machine holds, whatever its
// user, login session or temporary folder. The system lets go of it when the
// holder ends, however it ends, so nothing stale is ever left to clear.
class MachineLock
{
public:
    enum class State {
        Held,        // this object holds the lock (also when it already did)
        Taken,       // another holder has it
        Unavailable, // the lock cannot be used here (no place for it, no access)
    };

    // On Windows the name of a kernel object, elsewhere the path of a lock file.
    explicit MachineLock(QString name);
    ~MachineLock();
    MachineLock(const MachineLock &) = delete;
    MachineLock &operator=(const MachineLock &) = delete;

    State TryLock();
    void Unlock();

private:
    const QString name;
#ifdef Q_OS_WIN
    void *handle = nullptr;
#else
    int fd = -1;
#endif
};
