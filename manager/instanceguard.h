#pragma once

#include "machinelock.h"

#include <QSharedMemory>
#include <QString>
#include <QSystemSemaphore>
#include <QUuid>

// Lets one manager run at a time on the whole machine. A machine-wide lock
// decides; where it cannot be had, a named shared-memory segment marks the
// running instance, and a system semaphore serialises every look at it.
class InstanceGuard
{
public:
    InstanceGuard();
    ~InstanceGuard();
    InstanceGuard(const InstanceGuard &) = delete;
    InstanceGuard &operator=(const InstanceGuard &) = delete;

    bool Acquire();
    void Release();

    // Lower-case hex SHA-1 of the braced UUID text followed by the suffix.
    static QString DeriveKey(const QUuid &key, const QString &suffix);
    // The machine-wide lock; TARN_INSTANCE_LOCK names another lock file, so
    // that tests keep clear of a manager running on the same machine.
    static QString LockName();

private:
    bool OtherInstanceExists();
    bool AcquireSegment();

    const QUuid key;
    const QString lockKey;
    const QString segmentKey;
    MachineLock machineLock;
    QSharedMemory segment;
    QSystemSemaphore lock;
};
