#ifndef PROCTOOLS_H
#define PROCTOOLS_H

#include <QDir>
#include <QFileInfo>
#include <QThread>
#include <csignal>

// Processes whose executable is the given file, found through /proc.
inline QList<qint64> processesOf(const QString &executable)
{
    const QString target = QFileInfo(executable).canonicalFilePath();
    QList<qint64> pids;
    const QStringList entries = QDir(QStringLiteral("/proc")).entryList(QDir::Dirs);
    for (const QString &entry : entries) {
        bool numeric = false;
        const qint64 pid = entry.toLongLong(&numeric);
        if (numeric && QFileInfo(QStringLiteral("/proc/%1/exe").arg(entry)).symLinkTarget() == target)
            pids.append(pid);
    }
    return pids;
}

inline void killAll(const QString &executable)
{
    for (qint64 pid : processesOf(executable))
        ::kill(pid_t(pid), SIGKILL);
    for (int i = 0; i < 50 && !processesOf(executable).isEmpty(); ++i)
        QThread::msleep(20);
}

#endif // PROCTOOLS_H
