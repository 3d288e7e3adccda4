#include "epolldispatcher.h"

#include <QElapsedTimer>
#include <QEventLoop>
#include <QSocketNotifier>
#include <QTemporaryFile>
#include <QThread>
#include <QTimer>
#include <QtTest>
#include <memory>
#include <sys/socket.h>
#include <unistd.h>

// What Qt's own dispatcher guarantees and this program relies on, checked on
// the epoll one: ordering and re-entrancy of timers, notifiers that go away
// while pending, wake-ups from other threads.
class TestEpollDispatcher : public QObject
{
    Q_OBJECT

private slots:
    void installed() { QVERIFY(qobject_cast<EpollEventDispatcher *>(QAbstractEventDispatcher::instance())); }

    // Due together, timers fire in deadline order; a zero timer fires once a
    // pass and starves nobody; one killed in its own handler fires no more.
    void timersInOrder()
    {
        QStringList fired;
        QTimer late, early, zero, once;
        late.setTimerType(Qt::PreciseTimer);
        early.setTimerType(Qt::PreciseTimer);
        connect(&late, &QTimer::timeout, this, [&] { fired << "late"; });
        connect(&early, &QTimer::timeout, this, [&] { fired << "early"; });
        int zeroCount = 0;
        connect(&zero, &QTimer::timeout, this, [&] { ++zeroCount; });
        connect(&once, &QTimer::timeout, this, [&] { fired << "once"; once.stop(); });
        late.start(60);
        early.start(30);
        once.start(10);
        zero.start(0);
        QTest::qWait(110);
        zero.stop();
        QCOMPARE(fired.mid(0, 4), (QStringList{"once", "early", "late", "early"}));
        QCOMPARE(fired.count("once"), 1);
        QVERIFY(zeroCount > 10);
        QVERIFY(late.remainingTime() >= 0 && late.remainingTime() <= 60);
    }

    // Two timers due in one pass: the first kills the second and starts a
    // timer that takes over its id. The newcomer waits its full interval; it
    // must not fire in the pass that still held the killed timer's tick.
    void reusedIdWaitsItsInterval()
    {
        constexpr int Interval = 500;
        QTimer first, second, newcomer;
        for (QTimer *timer : {&first, &second, &newcomer})
            timer->setTimerType(Qt::PreciseTimer);
        newcomer.setSingleShot(true);
        QElapsedTimer sinceStart;
        qint64 firedAfter = -1;
        int killedId = -1, newcomerId = -2;
        connect(&first, &QTimer::timeout, this, [&] {
            first.stop();
            killedId = second.timerId();
            second.stop();
            newcomer.start(Interval);
            newcomerId = newcomer.timerId();
            sinceStart.start();
        });
        connect(&newcomer, &QTimer::timeout, this, [&] { firedAfter = sinceStart.elapsed(); });
        first.start(10);
        second.start(10);
        QThread::msleep(30); // both overdue when the loop next looks: one pass takes them
        QTRY_VERIFY_WITH_TIMEOUT(firedAfter >= 0, 5 * Interval);
        QCOMPARE(newcomerId, killedId); // else this checks nothing: Qt hands out freed ids first
        QVERIFY2(firedAfter >= Interval, qPrintable(QString("fired after %1 ms").arg(firedAfter)));
    }

    // A handler that runs a nested loop is not entered again by its own timer,
    // while the other timers go on; the missed tick comes after it returns.
    void timerNotReentered()
    {
        QTimer slow, other;
        int depth = 0, maxDepth = 0, slowTicks = 0, otherTicks = 0;
        connect(&other, &QTimer::timeout, this, [&] { ++otherTicks; });
        connect(&slow, &QTimer::timeout, this, [&] {
            maxDepth = qMax(maxDepth, ++depth);
            if (++slowTicks == 1)
                QTest::qWait(100);
            --depth;
        });
        slow.start(10);
        other.start(10);
        QTRY_VERIFY(slowTicks >= 3);
        QCOMPARE(maxDepth, 1);
        QVERIFY(otherTicks >= 5);
    }

    // Two descriptors ready at once: the first handler deletes the second
    // notifier, which must not be activated (it would be a freed object).
    void notifierDeletedWhilePending()
    {
        int pairs[2][2];
        QVERIFY(::socketpair(AF_UNIX, SOCK_STREAM, 0, pairs[0]) == 0 && ::socketpair(AF_UNIX, SOCK_STREAM, 0, pairs[1]) == 0);
        auto first = std::make_unique<QSocketNotifier>(pairs[0][0], QSocketNotifier::Read);
        auto second = std::make_unique<QSocketNotifier>(pairs[1][0], QSocketNotifier::Read);
        int activations = 0;
        const auto handler = [&] {
            ++activations;
            first.reset();
            second.reset();
        };
        connect(first.get(), &QSocketNotifier::activated, this, handler);
        connect(second.get(), &QSocketNotifier::activated, this, handler);
        QCOMPARE(::write(pairs[0][1], "x", 1), 1);
        QCOMPARE(::write(pairs[1][1], "x", 1), 1);
        QTRY_VERIFY(!first && !second);
        QTest::qWait(50);
        QCOMPARE(activations, 1);
        for (auto &pair : pairs)
            ::close(pair[0]), ::close(pair[1]);
    }

    // Write notifiers toggled as a socket's queue fills and drains, and a
    // peer that hangs up: the read notifier learns of it.
    void writeAndHangUp()
    {
        int pair[2];
        QVERIFY(::socketpair(AF_UNIX, SOCK_STREAM, 0, pair) == 0);
        QSocketNotifier writable(pair[0], QSocketNotifier::Write), readable(pair[0], QSocketNotifier::Read);
        int writes = 0, reads = 0;
        connect(&writable, &QSocketNotifier::activated, this, [&] {
            ++writes;
            writable.setEnabled(false);
        });
        connect(&readable, &QSocketNotifier::activated, this, [&] {
            ++reads;
            readable.setEnabled(false);
        });
        QTRY_COMPARE(writes, 1);
        QCOMPARE(reads, 0);
        ::close(pair[1]);
        QTRY_COMPARE(reads, 1);
        writable.setEnabled(true);
        QTRY_COMPARE(writes, 2);
        ::close(pair[0]);
    }

    // A regular file, which epoll refuses, reads as always ready, as with poll().
    void regularFileReady()
    {
        QTemporaryFile file;
        QVERIFY(file.open());
        QSocketNotifier notifier(file.handle(), QSocketNotifier::Read);
        QSignalSpy spy(&notifier, &QSocketNotifier::activated);
        QVERIFY(spy.wait(1000));
    }

    // A loop blocked with no timer due wakes for events posted from another thread.
    void wokenFromOtherThreads()
    {
        QEventLoop loop;
        bool delivered = false;
        std::unique_ptr<QThread> poster(QThread::create([&] {
            QThread::msleep(50);
            QMetaObject::invokeMethod(this, [&] { delivered = true; }, Qt::QueuedConnection);
            QThread::msleep(50);
            QMetaObject::invokeMethod(&loop, [&] { loop.exit(7); }, Qt::QueuedConnection);
        }));
        QTimer::singleShot(5000, &loop, [&] { loop.exit(-1); }); // never woken
        poster->start();
        QCOMPARE(loop.exec(), 7);
        QVERIFY(delivered);
        poster->wait();
    }
};

int main(int argc, char *argv[])
{
    QCoreApplication::setEventDispatcher(new EpollEventDispatcher);
    QCoreApplication app(argc, argv);
    TestEpollDispatcher test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_epolldispatcher.moc"
