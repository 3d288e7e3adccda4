#include "machinelock.h"

#include <utility>

#ifdef Q_OS_WIN
#include <windows.h>
#else
#include <QFile>
#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

MachineLock::MachineLock(QString name)
    : name(std::move(name))
{
}

MachineLock::~MachineLock()
{
    Unlock();
}

#ifdef Q_OS_WIN

// The named object exists while any process has a handle to it: whoever
// creates it holds the lock. An object made by a service under another
// account may be beyond this user's reach, which also means it is taken.
MachineLock::State MachineLock::TryLock()
{
    if (handle)
        return State::Held;
    HANDLE created = CreateMutexW(nullptr, FALSE, reinterpret_cast<LPCWSTR>(name.utf16()));
    const DWORD error = GetLastError();
    if (created && error != ERROR_ALREADY_EXISTS) {
        handle = created;
        return State::Held;
    }
    if (created)
        CloseHandle(created);
    return created || error == ERROR_ACCESS_DENIED ? State::Taken : State::Unavailable;
}

void MachineLock::Unlock()
{
    if (handle)
        CloseHandle(handle);
    handle = nullptr;
}

#else

namespace {

// Lock files live in a sticky folder that every user may write to, where the
// kernel can refuse an O_CREAT open of another user's file: open an existing
// file plainly, and create only a missing one. Reading is all flock needs, so
// a folder that is read-only for this process still works once the file exists.
// O_NONBLOCK: a FIFO put in its place must not stall the start-up.
int OpenLockFile(const QByteArray &path)
{
    const int flags = O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
    const int fd = ::open(path.constData(), flags);
    if (fd >= 0 || errno != ENOENT)
        return fd;
    const int created = ::open(path.constData(), flags | O_CREAT | O_EXCL, 0644);
    if (created >= 0) {
        // Whatever the umask: a manager of another user must be able to open it too.
        ::fchmod(created, 0644);
        return created;
    }
    // Another process created it in the meantime.
    return errno == EEXIST ? ::open(path.constData(), flags) : -1;
}

} // namespace

MachineLock::State MachineLock::TryLock()
{
    if (fd >= 0)
        return State::Held;
    const int opened = OpenLockFile(QFile::encodeName(name));
    if (opened < 0)
        return State::Unavailable;
    struct stat info {};
    if (::fstat(opened, &info) != 0 || !S_ISREG(info.st_mode)) {
        ::close(opened);
        return State::Unavailable;
    }
    if (::flock(opened, LOCK_EX | LOCK_NB) == 0) {
        fd = opened;
        return State::Held;
    }
    const bool taken = errno == EWOULDBLOCK;
    ::close(opened);
    return taken ? State::Taken : State::Unavailable;
}

void MachineLock::Unlock()
{
    if (fd >= 0)
        ::close(fd);
    fd = -1;
}

#endif
