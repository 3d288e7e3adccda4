#include "epolldispatcher.h"

#include <QCoreApplication>
#include <QSocketNotifier>
#include <QTimerEvent>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace {

constexpr int MaxEventsPerWait = 256;

qint64 Now()
{
    timespec now = {};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return qint64(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// Milliseconds from now to a deadline, 0 once it has passed.
int MsUntil(qint64 deadline)
{
    return int(std::clamp<qint64>(deadline - Now(), 0, INT_MAX));
}

// Qt gives very coarse timers whole seconds, rounded to the nearest.
qint64 EffectiveInterval(qint64 interval, Qt::TimerType type)
{
    return type == Qt::VeryCoarseTimer ? ((interval / 500 + 1) >> 1) * 1000 : interval;
}

// What each notifier type answers to, as Qt's own dispatcher reads poll().
constexpr uint32_t Wanted[3] = {EPOLLIN, EPOLLOUT, EPOLLPRI};
constexpr uint32_t Answered[3] = {EPOLLIN | EPOLLHUP | EPOLLERR, EPOLLOUT | EPOLLHUP | EPOLLERR,
                                  EPOLLPRI | EPOLLHUP | EPOLLERR};

} // namespace

EpollEventDispatcher::EpollEventDispatcher(QObject *parent)
    : QAbstractEventDispatcher(parent),
      epollFd(::epoll_create1(EPOLL_CLOEXEC)),
      wakeFd(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC))
{
    if (epollFd < 0 || wakeFd < 0)
        qFatal("EpollEventDispatcher: %s", std::strerror(errno));
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.fd = wakeFd;
    if (::epoll_ctl(epollFd, EPOLL_CTL_ADD, wakeFd, &event) != 0)
        qFatal("EpollEventDispatcher: %s", std::strerror(errno));
}

EpollEventDispatcher::~EpollEventDispatcher()
{
    ::close(wakeFd);
    ::close(epollFd);
}

bool EpollEventDispatcher::processEvents(QEventLoop::ProcessEventsFlags flags)
{
    interrupted.storeRelaxed(0);
    emit awake();
    QCoreApplication::sendPostedEvents();

    const bool includeTimers = !(flags & QEventLoop::X11ExcludeTimers);
    const bool includeNotifiers = !(flags & QEventLoop::ExcludeSocketNotifiers);
    const bool canWait = (flags & QEventLoop::WaitForMoreEvents) && !interrupted.loadRelaxed();
    if (canWait)
        emit aboutToBlock();
    if (interrupted.loadRelaxed())
        return false;

    int handled = Wait(WaitTime(canWait, includeTimers), includeNotifiers);
    if (includeNotifiers)
        handled += ActivateNotifiers();
    if (includeTimers)
        handled += ActivateTimers();
    return handled > 0;
}

// Milliseconds to block: none when asked not to, none while a regular file
// is watched, else until the next timer (for ever without one).
int EpollEventDispatcher::WaitTime(bool canWait, bool includeTimers)
{
    if (!canWait || alwaysReadyCount > 0)
        return 0;
    const Due *next = includeTimers ? NextDue() : nullptr;
    if (!next)
        return -1;
    return MsUntil(next->deadline);
}

// Waits and marks the notifiers to activate; returns 1 when it was woken up.
int EpollEventDispatcher::Wait(int timeoutMs, bool includeNotifiers)
{
    if (!includeNotifiers) {
        pollfd wake = {wakeFd, POLLIN, 0};
        const bool woken = ::poll(&wake, 1, timeoutMs) > 0;
        if (woken)
            Drain();
        return woken ? 1 : 0;
    }
    // Called again from a handler, the list may still hold the outer call's notifiers.
    const bool nested = !pending.isEmpty();
    const auto mark = [this, nested](QSocketNotifier *notifier) {
        if (!nested || !pending.contains(notifier))
            pending.append(notifier);
    };
    epoll_event events[MaxEventsPerWait];
    const int count = ::epoll_wait(epollFd, events, MaxEventsPerWait, timeoutMs);
    int woken = 0;
    for (int i = 0; i < count; ++i) {
        const int fd = events[i].data.fd;
        if (fd == wakeFd) {
            Drain();
            woken = 1;
            continue;
        }
        const auto watch = watches.constFind(fd);
        if (watch == watches.constEnd())
            continue;
        for (int type = 0; type < 3; ++type)
            if (watch->notifiers[type] && (events[i].events & Answered[type]))
                mark(watch->notifiers[type]);
    }
    if (alwaysReadyCount > 0) {
        for (const Watch &watch : qAsConst(watches))
            if (watch.alwaysReady)
                for (QSocketNotifier *notifier : watch.notifiers)
                    if (notifier && notifier->type() != QSocketNotifier::Exception)
                        mark(notifier);
    }
    return woken;
}

void EpollEventDispatcher::Drain()
{
    quint64 count = 0;
    while (::read(wakeFd, &count, sizeof count) < 0 && errno == EINTR) {
    }
    wakeUps.storeRelease(0);
}

// Each pending notifier once; one unregistered meanwhile leaves the list.
int EpollEventDispatcher::ActivateNotifiers()
{
    int activated = 0;
    while (!pending.isEmpty()) {
        QSocketNotifier *notifier = pending.takeFirst();
        QEvent event(QEvent::SockAct);
        QCoreApplication::sendEvent(notifier, &event);
        ++activated;
    }
    return activated;
}

void EpollEventDispatcher::registerSocketNotifier(QSocketNotifier *notifier)
{
    const int fd = int(notifier->socket());
    Watch &watch = watches[fd];
    watch.notifiers[notifier->type()] = notifier;
    UpdateWatch(fd, watch);
}

void EpollEventDispatcher::unregisterSocketNotifier(QSocketNotifier *notifier)
{
    pending.removeAll(notifier);
    const int fd = int(notifier->socket());
    const auto watch = watches.find(fd);
    if (watch == watches.end() || watch->notifiers[notifier->type()] != notifier)
        return;
    watch->notifiers[notifier->type()] = nullptr;
    UpdateWatch(fd, *watch);
    if (!watch->polled && !watch->alwaysReady)
        watches.erase(watch);
}

// Brings the epoll set in line with the descriptor's notifiers. A descriptor
// closed without its notifiers left the set on its own, so "gone" and
// "already there" are both taken as they come.
void EpollEventDispatcher::UpdateWatch(int fd, Watch &watch)
{
    uint32_t wanted = 0;
    for (int type = 0; type < 3; ++type)
        if (watch.notifiers[type])
            wanted |= Wanted[type];
    if (watch.alwaysReady) {
        if (!wanted) {
            watch.alwaysReady = false;
            --alwaysReadyCount;
        }
        return;
    }
    epoll_event event = {};
    event.events = wanted;
    event.data.fd = fd;
    if (!wanted) {
        if (watch.polled)
            ::epoll_ctl(epollFd, EPOLL_CTL_DEL, fd, &event);
        watch.polled = false;
        return;
    }
    int op = watch.polled ? EPOLL_CTL_MOD : EPOLL_CTL_ADD;
    if (::epoll_ctl(epollFd, op, fd, &event) != 0) {
        op = errno == ENOENT ? EPOLL_CTL_ADD : errno == EEXIST ? EPOLL_CTL_MOD : -1;
        if (errno == EPERM) {
            watch.alwaysReady = true;
            ++alwaysReadyCount;
        } else if (op < 0 || ::epoll_ctl(epollFd, op, fd, &event) != 0) {
            qWarning("EpollEventDispatcher: cannot watch descriptor %d: %s", fd, std::strerror(errno));
        }
    }
    watch.polled = !watch.alwaysReady;
}

void EpollEventDispatcher::registerTimer(int timerId, Interval interval, Qt::TimerType timerType, QObject *object)
{
    Timer &timer = timers[timerId];
    timer.interval = EffectiveInterval(interval, timerType);
    timer.type = timerType;
    timer.object = object;
    timer.firing = false;
    timersOf.insert(object, timerId);
    Schedule(timerId, timer, Now() + timer.interval);
}

void EpollEventDispatcher::Schedule(int timerId, Timer &timer, qint64 deadline)
{
    timer.deadline = deadline;
    timer.ticket = ++nextTicket;
    heap.push(Due{deadline, timer.ticket, timerId});
}

bool EpollEventDispatcher::unregisterTimer(int timerId)
{
    const auto timer = timers.find(timerId);
    if (timer == timers.end())
        return false;
    timersOf.remove(timer->second.object, timerId);
    timers.erase(timer);
    return true;
}

bool EpollEventDispatcher::unregisterTimers(QObject *object)
{
    const QList<int> ids = timersOf.values(object);
    for (int id : ids)
        timers.erase(id);
    timersOf.remove(object);
    return !ids.isEmpty();
}

QList<QAbstractEventDispatcher::TimerInfo> EpollEventDispatcher::registeredTimers(QObject *object) const
{
    QList<TimerInfo> list;
    for (auto id = timersOf.constFind(object); id != timersOf.constEnd() && id.key() == object; ++id) {
        const Timer &timer = timers.at(id.value());
        list.append(TimerInfo(id.value(), int(timer.interval), timer.type));
    }
    return list;
}

int EpollEventDispatcher::remainingTime(int timerId)
{
    const auto timer = timers.find(timerId);
    if (timer == timers.end())
        return -1;
    return MsUntil(timer->second.deadline);
}

// The earliest live heap entry; entries of timers gone or rescheduled are dropped on the way.
const EpollEventDispatcher::Due *EpollEventDispatcher::NextDue()
{
    while (!heap.empty()) {
        const auto timer = timers.find(heap.top().timerId);
        if (timer != timers.end() && timer->second.ticket == heap.top().ticket)
            return &heap.top();
        heap.pop();
    }
    return nullptr;
}

// Each timer due now fires once, in deadline order. One whose handler is still
// running further up the stack is neither fired nor waited for until it returns,
// as in Qt.
int EpollEventDispatcher::ActivateTimers()
{
    const qint64 now = Now();
    std::vector<Due> due;
    for (const Due *next = NextDue(); next && next->deadline <= now; next = NextDue()) {
        due.push_back(*next);
        heap.pop();
    }
    int fired = 0;
    for (const Due &entry : due) {
        const int id = entry.timerId;
        auto timer = timers.find(id);
        // Killed, restarted or fired by a nested pass since: a timer that took
        // over a killed one's id holds a newer ticket and waits its own interval.
        if (timer == timers.end() || timer->second.ticket != entry.ticket)
            continue;
        Timer &t = timer->second;
        if (t.firing) {
            t.missed = true;
            continue;
        }
        // The next deadline keeps the rhythm unless the timer fell a whole period behind.
        const qint64 next = t.deadline + t.interval;
        Schedule(id, t, next > now ? next : now + t.interval);
        t.firing = true;
        QTimerEvent event(id);
        QCoreApplication::sendEvent(t.object, &event);
        ++fired;
        timer = timers.find(id);
        if (timer == timers.end())
            continue;
        timer->second.firing = false;
        if (timer->second.missed) {
            timer->second.missed = false;
            Schedule(id, timer->second, timer->second.deadline);
        }
    }
    return fired;
}

void EpollEventDispatcher::wakeUp()
{
    if (wakeUps.testAndSetAcquire(0, 1)) {
        const quint64 one = 1;
        while (::write(wakeFd, &one, sizeof one) < 0 && errno == EINTR) {
        }
    }
}

void EpollEventDispatcher::interrupt()
{
    interrupted.storeRelaxed(1);
    wakeUp();
}

#if QT_VERSION < QT_VERSION_CHECK(6, 0, 0)
// Something was posted, or the loop asked to wake, since the loop last looked.
bool EpollEventDispatcher::hasPendingEvents()
{
    return wakeUps.loadAcquire() != 0;
}
#endif
