#pragma once

#include <QAbstractEventDispatcher>
#include <QAtomicInt>
#include <QHash>
#include <QMultiHash>

#include <queue>
#include <unordered_map>
#include <vector>

class QSocketNotifier;

// An event dispatcher for Linux whose cost per wake-up does not grow with the
// number of sockets: notifiers are registered once with epoll, and timers wait
// in a heap. It delivers what Qt's own Unix dispatcher delivers, in the same
// order: posted events, then socket activations, then due timers. For a
// thread without a window: a platform plugin brings a dispatcher of its own.
class EpollEventDispatcher : public QAbstractEventDispatcher
{
    Q_OBJECT

public:
    explicit EpollEventDispatcher(QObject *parent = nullptr);
    ~EpollEventDispatcher() override;

    bool processEvents(QEventLoop::ProcessEventsFlags flags) override;

    void registerSocketNotifier(QSocketNotifier *notifier) override;
    void unregisterSocketNotifier(QSocketNotifier *notifier) override;

#if QT_VERSION < QT_VERSION_CHECK(6, 0, 0)
    using Interval = int;
    bool hasPendingEvents() override;
    void flush() override {}
#else
    using Interval = qint64;
#endif
    void registerTimer(int timerId, Interval interval, Qt::TimerType timerType, QObject *object) override;
    bool unregisterTimer(int timerId) override;
    bool unregisterTimers(QObject *object) override;
    QList<TimerInfo> registeredTimers(QObject *object) const override;
    int remainingTime(int timerId) override;

    void wakeUp() override;
    void interrupt() override;

private:
    // The notifiers of one descriptor, by QSocketNotifier::Type.
    struct Watch
    {
        QSocketNotifier *notifiers[3] = {nullptr, nullptr, nullptr};
        bool polled = false;     // in the epoll set
        bool alwaysReady = false; // a regular file, which epoll refuses and poll() reports ready
    };
    struct Timer
    {
        qint64 interval = 0;
        Qt::TimerType type = Qt::CoarseTimer;
        QObject *object = nullptr;
        qint64 deadline = 0;
        quint64 ticket = 0; // of its current heap entry
        bool firing = false;
        bool missed = false; // came due while firing
    };
    struct Due
    {
        qint64 deadline;
        quint64 ticket;
        int timerId;
        bool operator>(const Due &other) const
        {
            return deadline != other.deadline ? deadline > other.deadline : ticket > other.ticket;
        }
    };

    void UpdateWatch(int fd, Watch &watch);
    void Schedule(int timerId, Timer &timer, qint64 deadline);
    int WaitTime(bool canWait, bool includeTimers);
    int Wait(int timeoutMs, bool includeNotifiers);
    int ActivateNotifiers();
    int ActivateTimers();
    const Due *NextDue();
    void Drain();

    int epollFd = -1;
    int wakeFd = -1;
    QAtomicInt wakeUps;
    QAtomicInt interrupted;
    QHash<int, Watch> watches;
    int alwaysReadyCount = 0;
    QList<QSocketNotifier *> pending;
    std::unordered_map<int, Timer> timers;
    QMultiHash<QObject *, int> timersOf;
    std::priority_queue<Due, std::vector<Due>, std::greater<Due>> heap;
    quint64 nextTicket = 0;
};
