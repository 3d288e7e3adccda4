#include "instanceguard.h"

#include <QCryptographicHash>

InstanceGuard::InstanceGuard()
    : key(QStringLiteral("9913c03a-60e5-4b07-999e-d07c9d49bade"))
    , lockKey(DeriveKey(key, QStringLiteral("_memLockKey")))
    , segmentKey(DeriveKey(key, QStringLiteral("_sharedmemKey")))
    , machineLock(LockName())
    , segment(segmentKey)
    , lock(lockKey, 1, QSystemSemaphore::Open)
{
    // A segment left by a process that died is dropped when its last user
    // detaches: attaching and detaching once clears it for the next start.
    lock.acquire();
    {
        QSharedMemory stale(segmentKey);
        stale.attach(QSharedMemory::ReadWrite);
    }
    lock.release();
}

InstanceGuard::~InstanceGuard()
{
    Release();
}

QString InstanceGuard::DeriveKey(const QUuid &key, const QString &suffix)
{
    const QByteArray data = key.toString().toUtf8() + suffix.toUtf8();
    return QString::fromLatin1(QCryptographicHash::hash(data, QCryptographicHash::Sha1).toHex());
}

QString InstanceGuard::LockName()
{
    const QString path = qEnvironmentVariable("TARN_INSTANCE_LOCK");
#ifdef Q_OS_WIN
    // A kernel object name takes no backslash after its namespace.
    const QString name = QStringLiteral("Global\\tarn-manager");
    return path.isEmpty() ? name
                          : name + QLatin1Char('-')
                                + QString::fromLatin1(QCryptographicHash::hash(path.toUtf8(), QCryptographicHash::Sha1).toHex());
#else
    if (!path.isEmpty())
        return path;
    // Fixed and shared by all users; a systemd unit's private /tmp would not be.
#ifdef Q_OS_LINUX
    return QStringLiteral("/run/lock/tarn-manager.lock");
#else
    return QStringLiteral("/tmp/tarn-manager.lock");
#endif
#endif
}

// The segment's key comes from the temporary folder, which a service's private
// /tmp changes: it only stands in where the machine-wide lock cannot be used.
bool InstanceGuard::Acquire()
{
    switch (machineLock.TryLock()) {
    case MachineLock::State::Held:
        return true;
    case MachineLock::State::Taken:
        return false;
    case MachineLock::State::Unavailable:
        break;
    }
    return AcquireSegment();
}

bool InstanceGuard::OtherInstanceExists()
{
    if (segment.isAttached())
        return false;
    lock.acquire();
    const bool attached = segment.attach(QSharedMemory::ReadWrite);
    if (attached)
        segment.detach();
    lock.release();
    return attached;
}

bool InstanceGuard::AcquireSegment()
{
    // Asked again by the instance that already holds the segment: still the one.
    if (segment.isAttached())
        return true;
    if (OtherInstanceExists())
        return false;
    lock.acquire();
    const bool created = segment.create(8, QSharedMemory::ReadWrite);
    lock.release();
    if (!created) {
        Release();
        return false;
    }
    return true;
}

void InstanceGuard::Release()
{
    machineLock.Unlock();
    lock.acquire();
    if (segment.isAttached())
        segment.detach();
    lock.release();
}
