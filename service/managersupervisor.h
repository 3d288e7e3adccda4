#ifndef MANAGERSUPERVISOR_H
#define MANAGERSUPERVISOR_H

#include <QElapsedTimer>
#include <QObject>
#include <QProcess>
#include <QTimer>

// When a child that keeps failing is started again, and when that ends.
struct SupervisionPolicy
{
    int firstDelayMs = 1000;
    int maxDelayMs = 60 * 1000;
    // A run at least this long counts as stable: it ends a row of failures.
    int stableRunMs = 5 * 60 * 1000;
    // The quick failure that gives up (the restarts before it wait
    // firstDelayMs, twice that, ...).
    int maxQuickFailures = 5;
};

// Keeps one child program running: a child that ends without having been
// asked to is started again after a back-off that doubles with each quick
// failure in a row; after too many of them the supervisor gives up and says
// so, so that its owner can fail loudly instead of running without a child.
class ManagerSupervisor : public QObject
{
    Q_OBJECT
public:
    explicit ManagerSupervisor(const SupervisionPolicy &policy = SupervisionPolicy(), QObject *parent = nullptr);
    // Kills a running child and waits for it; nothing is started again.
    ~ManagerSupervisor() override;

    void setProgram(const QString &program);

    // Starts the child and supervises it until stop().
    void start();
    // Asks the child to close, kills it if it has not ended within graceMs,
    // and cancels a pending restart; nothing is started afterwards.
    void stop(int graceMs);
    // While paused a child that ends stays down; resume() starts it at once if
    // its back-off ran out during the pause.
    void pause();
    void resume();

    bool isChildRunning() const;

    // "999 ms", "1.5 s", "12 s", "5 min", "3 h": exact enough for a log line.
    static QString describeDuration(qint64 ms);

signals:
    // The child ended on its own, or could not be started; it is started again
    // after delayMs.
    void restartScheduled(int delayMs, const QString &message);
    // The last of maxQuickFailures quick failures in a row: nothing is started
    // any more.
    void gaveUp(const QString &message);

private:
    enum class State { Idle, Running, Waiting, Stopping };

    void launch();
    void onFinished(int exitCode, QProcess::ExitStatus status);
    void onErrorOccurred(QProcess::ProcessError error);
    void childEnded(const QString &what, bool ran);
    void onBackOffElapsed();
    QString name() const;
    // For an operator: "was killed by signal 9 (Killed)", "ended with exit code 1".
    static QString describeEnd(QProcess::ExitStatus status, int exitCode);

    const SupervisionPolicy policy;
    QProcess process;
    QTimer backOff;
    QElapsedTimer runTime;
    State state = State::Idle;
    int quickFailures = 0;
    int nextDelayMs;
    bool paused = false;
    bool startOnResume = false;
};

#endif // MANAGERSUPERVISOR_H
