#include "instanceguard.h"

#include <QCryptographicHash>

InstanceGuard::InstanceGuard()
    : key(QStringLiteral("9913c03a-60e5-4b07-999e-d07c9d49bade"))
    , lockKey(DeriveKey(key, QStringLiteral("_memLockKey")))
    , segmentKey(DeriveKey(key, QStringLiteral("_sharedmemKey")))
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

bool InstanceGuard::Acquire()
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
    lock.acquire();
    if (segment.isAttached())
        segment.detach();
    lock.release();
}
