#pragma once

#include <QSharedMemory>
#include <QString>
#include <QSystemSemaphore>
#include <QUuid>

// Lets one manager run at a time: a named shared-memory segment marks the
// running instance, and a system semaphore serialises every look at it.
class InstanceGuard
{
public:
    InstanceGuard();
    ~InstanceGuard();
    InstanceGuard(const InstanceGuard &) = delete;
    InstanceGuard &operator=(const InstanceGuard &) = delete;

    bool Acquire();
    bool OtherInstanceExists();
    void Release();

    // Lower-case hex SHA-1 of the braced UUID text followed by the suffix.
    static QString DeriveKey(const QUuid &key, const QString &suffix);

private:
    const QUuid key;
    const QString lockKey;
    const QString segmentKey;
    QSharedMemory segment;
    QSystemSemaphore lock;
};
