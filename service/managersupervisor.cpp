#include "managersupervisor.h"

#include <QDir>
#include <QFileInfo>
#include <QLocale>

#include <cstring>

ManagerSupervisor::ManagerSupervisor(const SupervisionPolicy &policy, QObject *parent)
    : QObject(parent), policy(policy), nextDelayMs(policy.firstDelayMs)
{
    // The child writes where the host writes (the stand-in's service log);
    // read into the host, its output would pile up unread.
    process.setProcessChannelMode(QProcess::ForwardedChannels);
    // Coarse timers may fire 5% early; the announced delay should hold.
    backOff.setTimerType(Qt::PreciseTimer);
    backOff.setSingleShot(true);
    connect(&backOff, &QTimer::timeout, this, &ManagerSupervisor::onBackOffElapsed);
    connect(&process, QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished), this,
            &ManagerSupervisor::onFinished);
    connect(&process, &QProcess::errorOccurred, this, &ManagerSupervisor::onErrorOccurred);
}

// That end of the child must not look like a failure.
ManagerSupervisor::~ManagerSupervisor()
{
    process.disconnect(this);
    if (process.state() != QProcess::NotRunning) {
        process.kill();
        process.waitForFinished();
    }
}

void ManagerSupervisor::setProgram(const QString &program)
{
    process.setProgram(program);
}

void ManagerSupervisor::start()
{
    if (state == State::Running || state == State::Waiting)
        return;
    quickFailures = 0;
    nextDelayMs = policy.firstDelayMs;
    paused = false;
    startOnResume = false;
    launch();
}

void ManagerSupervisor::stop(int graceMs)
{
    state = State::Stopping;
    backOff.stop();
    startOnResume = false;
    if (process.state() != QProcess::NotRunning) {
        process.terminate();
        if (!process.waitForFinished(graceMs)) {
            process.kill();
            process.waitForFinished(graceMs);
        }
    }
    state = State::Idle;
}

void ManagerSupervisor::pause()
{
    paused = true;
}

void ManagerSupervisor::resume()
{
    paused = false;
    if (startOnResume) {
        startOnResume = false;
        launch();
    }
}

bool ManagerSupervisor::isChildRunning() const
{
    return process.state() != QProcess::NotRunning;
}

void ManagerSupervisor::launch()
{
    state = State::Running;
    runTime.start();
    process.start(QIODevice::ReadWrite);
}

void ManagerSupervisor::onFinished(int exitCode, QProcess::ExitStatus status)
{
    if (state == State::Running)
        childEnded(describeEnd(status, exitCode), true);
}

// A child that could not be started gives no finished signal.
void ManagerSupervisor::onErrorOccurred(QProcess::ProcessError error)
{
    if (error == QProcess::FailedToStart && state == State::Running)
        childEnded(tr("could not be started (%1): %2")
                       .arg(QDir::toNativeSeparators(process.program()), process.errorString()),
                   false);
}

void ManagerSupervisor::childEnded(const QString &what, bool ran)
{
    const qint64 ranMs = runTime.elapsed();
    if (ranMs >= policy.stableRunMs) {
        quickFailures = 0;
        nextDelayMs = policy.firstDelayMs;
    } else {
        ++quickFailures;
    }
    const QString end = ran ? tr("%1 after %2").arg(what, describeDuration(ranMs)) : what;
    if (quickFailures >= policy.maxQuickFailures) {
        state = State::Idle;
        emit gaveUp(tr("The manager %1 failed %2 times in a row, the last time it %3")
                        .arg(name(), QString::number(quickFailures), end));
        return;
    }
    const int delayMs = nextDelayMs;
    nextDelayMs = int(qMin(qint64(policy.maxDelayMs), 2 * qint64(nextDelayMs)));
    state = State::Waiting;
    backOff.start(delayMs);
    const QString when = paused ? tr("when the service resumes, %1 at the earliest") : tr("in %1");
    emit restartScheduled(delayMs, tr("The manager %1 %2; it is started again %3")
                                       .arg(name(), end, when.arg(describeDuration(delayMs))));
}

void ManagerSupervisor::onBackOffElapsed()
{
    if (state != State::Waiting)
        return;
    if (paused)
        startOnResume = true;
    else
        launch();
}

QString ManagerSupervisor::name() const
{
    return QFileInfo(process.program()).fileName();
}

QString ManagerSupervisor::describeEnd(QProcess::ExitStatus status, int exitCode)
{
    if (status == QProcess::NormalExit)
        return tr("ended with exit code %1").arg(exitCode);
#ifdef Q_OS_WIN
    // A crash leaves the NTSTATUS of its exception as the exit code.
    return tr("crashed with code 0x%1").arg(QString::number(quint32(exitCode), 16).toUpper().rightJustified(8, QLatin1Char('0')));
#else
    // QProcess reports the number of the signal that ended the child.
    return tr("was killed by signal %1 (%2)").arg(exitCode).arg(QString::fromLocal8Bit(::strsignal(exitCode)));
#endif
}

QString ManagerSupervisor::describeDuration(qint64 ms)
{
    if (ms < 1000)
        return tr("%1 ms").arg(ms);
    if (ms < 10 * 1000 && ms % 1000 != 0)
        return tr("%1 s").arg(QLocale::c().toString(double(ms) / 1000, 'f', 1));
    if (ms < 120 * 1000)
        return tr("%1 s").arg(ms / 1000);
    if (ms < 120 * 60 * 1000)
        return tr("%1 min").arg(ms / (60 * 1000));
    return tr("%1 h").arg(ms / (60 * 60 * 1000));
}
