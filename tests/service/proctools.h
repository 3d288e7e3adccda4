#ifndef PROCTOOLS_H
#define PROCTOOLS_H

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
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

// Copies a program to where a test runs it from, 0755 whatever the source's
// mode: -install refuses a program that others can write, as a build folder
// made under a group-writable umask holds.
inline bool copyProgram(const QString &from, const QString &to)
{
    return QFile::copy(from, to)
           && QFile::setPermissions(to, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner
                                            | QFileDevice::ReadGroup | QFileDevice::ExeGroup
                                            | QFileDevice::ReadOther | QFileDevice::ExeOther);
}

struct RunResult
{
    QByteArray out;
    QByteArray err;
    int code = -1; // -1: crashed, or killed after 15 s
};

inline RunResult runProgram(const QString &program, const QStringList &args)
{
    QProcess process;
    process.start(program, args);
    if (!process.waitForFinished(15000)) {
        process.kill();
        process.waitForFinished();
    }
    RunResult result{process.readAllStandardOutput(), process.readAllStandardError()};
    result.code = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    return result;
}

inline void killAll(const QString &executable)
{
    for (qint64 pid : processesOf(executable))
        ::kill(pid_t(pid), SIGKILL);
    for (int i = 0; i < 50 && !processesOf(executable).isEmpty(); ++i)
        QThread::msleep(20);
}

#endif // PROCTOOLS_H
