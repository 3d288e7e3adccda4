#include "../testsupport.h"
#include "managersupervisor.h"

#include <QElapsedTimer>
#include <QScopeGuard>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>

// The supervision policy with millisecond-scale numbers and a shell script as
// the child. The script notes each start with a time stamp and then runs the
// plan's line for that start; past the plan it runs until it is ended.
class TestManagerSupervisor : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        temp = std::make_unique<QTemporaryDir>();
        QVERIFY(temp->isValid());
        child = temp->filePath(QStringLiteral("child"));
        QVERIFY(testsupport::WriteFile(child,
                                       "#!/bin/sh\n"
                                       "dir=$(dirname \"$0\")\n"
                                       "echo \"$(date +%s%N) $$\" >> \"$dir/starts\"\n"
                                       "line=$(sed -n \"$(wc -l < \"$dir/starts\")p\" \"$dir/plan\")\n"
                                       "[ -n \"$line\" ] || line='exec sleep 600'\n"
                                       "eval \"$line\"\n"));
        QFile::setPermissions(child, QFile::permissions(child) | QFileDevice::ExeOwner);
        writePlan({});
    }

    void backOff_data()
    {
        QTest::addColumn<int>("maxQuickFailures");
        QTest::addColumn<QStringList>("plan");
        QTest::addColumn<QList<int>>("delays");
        QTest::addColumn<bool>("givesUp");

        const QString quick = QStringLiteral("exit 1");
        const auto quickTimes = [&quick](int n) { return QStringList(QVector<QString>(n, quick).toList()); };
        const QString stable = QStringLiteral("sleep %1; exit 1").arg(double(StableRunMs + 200) / 1000);
        // The same four quick failures one short of the limit and at it.
        QTest::newRow("doubles, then capped, short of the limit") << 5 << quickTimes(4) << QList<int>{20, 40, 80, 80} << false;
        QTest::newRow("at the limit") << 4 << quickTimes(4) << QList<int>{20, 40, 80} << true;
        QTest::newRow("a stable run starts the count and the delay anew")
            << 3 << QStringList{quick, quick, stable, quick, quick} << QList<int>{20, 40, 20, 40, 80} << false;
    }

    void backOff()
    {
        QFETCH(int, maxQuickFailures);
        QFETCH(QStringList, plan);
        QFETCH(QList<int>, delays);
        QFETCH(bool, givesUp);
        writePlan(plan);

        ManagerSupervisor supervisor(policy(maxQuickFailures));
        supervisor.setProgram(child);
        QSignalSpy restarts(&supervisor, &ManagerSupervisor::restartScheduled);
        QSignalSpy gaveUp(&supervisor, &ManagerSupervisor::gaveUp);
        supervisor.start();

        if (givesUp) {
            QTRY_COMPARE_WITH_TIMEOUT(gaveUp.count(), 1, 10000);
            QVERIFY2(gaveUp.first().first().toString().startsWith(
                         QStringLiteral("The manager child failed %1 times in a row, the last time it ended with exit code 1 after ")
                             .arg(maxQuickFailures)),
                     qPrintable(gaveUp.first().first().toString()));
            QVERIFY(!supervisor.isChildRunning());
            // Nothing is started any more: wait out longer than any back-off.
            QTest::qWait(3 * MaxDelayMs);
            QCOMPARE(starts().size(), plan.size());
        } else {
            QTRY_COMPARE_WITH_TIMEOUT(starts().size(), plan.size() + 1, 10000);
            QTRY_VERIFY(supervisor.isChildRunning());
            QCOMPARE(gaveUp.count(), 0);
        }
        QList<int> announced;
        for (const QList<QVariant> &signal : qAsConst(restarts))
            announced.append(signal.first().toInt());
        QCOMPARE(announced, delays);

        // Each start came no sooner than its announced back-off (less the timer's 5% leeway).
        const QList<qint64> times = starts();
        for (int i = 0; i + 1 < times.size(); ++i) {
            const qint64 gapMs = (times.at(i + 1) - times.at(i)) / 1000000;
            QVERIFY2(gapMs >= delays.at(i) * 95 / 100, qPrintable(QStringLiteral("start %1 after %2 ms").arg(i + 1).arg(gapMs)));
        }
    }

    // A program that cannot be started gives no finished signal, only an
    // error: reported once all the same. How a child that ran ended (exit
    // code, signal) shows in the service host's event log, in tst_tarnsvc.
    void failedStartIsReported()
    {
        // Long enough that the case ends during the back-off.
        ManagerSupervisor supervisor(policy(5, 10000));
        supervisor.setProgram(temp->filePath(QStringLiteral("plan")));
        QSignalSpy restarts(&supervisor, &ManagerSupervisor::restartScheduled);
        supervisor.start();
        QTRY_VERIFY_WITH_TIMEOUT(!restarts.isEmpty(), 5000);
        const QString message = restarts.first().at(1).toString();
        QVERIFY2(message.startsWith(QStringLiteral("The manager plan could not be started (%1/plan): ").arg(temp->path()))
                     && message.endsWith(QStringLiteral("; it is started again in 10 s")),
                 qPrintable(message));
        QCoreApplication::processEvents();
        QCOMPARE(restarts.count(), 1);
        supervisor.stop(1000);
    }

    void operatorStopStartsNothing_data()
    {
        QTest::addColumn<QString>("line");

        QTest::newRow("while the child runs") << QStringLiteral("exec sleep 600");
        QTest::newRow("during a back-off") << QStringLiteral("exit 1");
    }

    void operatorStopStartsNothing()
    {
        QFETCH(QString, line);
        writePlan({line});
        constexpr int BackOffMs = 200;
        ManagerSupervisor supervisor(policy(5, BackOffMs));
        supervisor.setProgram(child);
        QSignalSpy restarts(&supervisor, &ManagerSupervisor::restartScheduled);
        supervisor.start();
        QTRY_COMPARE(starts().size(), 1);
        const bool duringBackOff = line.startsWith(QLatin1String("exit"));
        if (duringBackOff)
            QTRY_COMPARE(restarts.count(), 1);

        QElapsedTimer stopping;
        stopping.start();
        supervisor.stop(1000);
        QVERIFY2(stopping.elapsed() < 500, qPrintable(QString::number(stopping.elapsed())));
        QVERIFY(!supervisor.isChildRunning());
        QTest::qWait(2 * BackOffMs);
        QCOMPARE(starts().size(), 1);
        QCOMPARE(restarts.count(), duringBackOff ? 1 : 0);
    }

    void destructionIsNoFailure()
    {
        auto supervisor = std::make_unique<ManagerSupervisor>(policy(5));
        supervisor->setProgram(child);
        QSignalSpy restarts(supervisor.get(), &ManagerSupervisor::restartScheduled);
        supervisor->start();
        QTRY_COMPARE(starts().size(), 1);
        const pid_t pid = pid_t(lastChildPid());
        QVERIFY(pid > 1);
        auto killChild = qScopeGuard([pid] { ::kill(pid, SIGKILL); });
        QTRY_VERIFY(supervisor->isChildRunning());

        supervisor.reset();
        QCOMPARE(restarts.count(), 0);
        QVERIFY(::kill(pid, 0) != 0);
        QTest::qWait(3 * FirstDelayMs);
        QCOMPARE(starts().size(), 1);
    }

    void deathWhilePausedRestartsOnResume()
    {
        writePlan({QStringLiteral("exec sleep 600")});
        ManagerSupervisor supervisor(policy(5));
        supervisor.setProgram(child);
        QSignalSpy restarts(&supervisor, &ManagerSupervisor::restartScheduled);
        supervisor.start();
        QTRY_COMPARE(starts().size(), 1);
        QTRY_VERIFY(supervisor.isChildRunning());

        supervisor.pause();
        const pid_t pid = pid_t(lastChildPid());
        QVERIFY(pid > 1);
        ::kill(pid, SIGKILL);
        QTRY_COMPARE(restarts.count(), 1);
        const QString message = restarts.first().at(1).toString();
        QVERIFY2(message.endsWith(QStringLiteral("; it is started again when the service resumes, 20 ms at the earliest")),
                 qPrintable(message));
        QTest::qWait(3 * FirstDelayMs);
        QCOMPARE(starts().size(), 1);
        QVERIFY(!supervisor.isChildRunning());

        supervisor.resume();
        QTRY_COMPARE(starts().size(), 2);
        supervisor.stop(1000);
    }

    void durations_data()
    {
        QTest::addColumn<qint64>("ms");
        QTest::addColumn<QString>("text");

        // Milliseconds and whole seconds show in the restart messages above.
        QTest::newRow("1.5 s") << qint64(1500) << "1.5 s";
        QTest::newRow("just under 2 min") << qint64(119999) << "119 s";
        QTest::newRow("2 min") << qint64(120000) << "2 min";
        QTest::newRow("2 h") << qint64(2 * 3600 * 1000) << "2 h";
    }

    void durations()
    {
        QFETCH(qint64, ms);
        QFETCH(QString, text);
        QCOMPARE(ManagerSupervisor::describeDuration(ms), text);
    }

private:
    static constexpr int FirstDelayMs = 20;
    static constexpr int MaxDelayMs = 80;
    static constexpr int StableRunMs = 500;

    SupervisionPolicy policy(int maxQuickFailures, int firstDelayMs = FirstDelayMs) const
    {
        SupervisionPolicy p;
        p.firstDelayMs = firstDelayMs;
        p.maxDelayMs = MaxDelayMs;
        p.stableRunMs = StableRunMs;
        p.maxQuickFailures = maxQuickFailures;
        return p;
    }

    void writePlan(const QStringList &plan)
    {
        QVERIFY(testsupport::WriteFile(temp->filePath(QStringLiteral("plan")), plan.join(QLatin1Char('\n')).toUtf8() + '\n'));
    }

    // Each start of the child noted its time in nanoseconds and its process id.
    QList<qint64> starts() const { return testsupport::FirstNumbers(temp->filePath(QStringLiteral("starts"))); }
    qint64 lastChildPid() const
    {
        return testsupport::FileBytes(temp->filePath(QStringLiteral("starts"))).trimmed().split('\n').last().split(' ').value(1).toLongLong();
    }

    std::unique_ptr<QTemporaryDir> temp;
    QString child;
};

QTEST_GUILESS_MAIN(TestManagerSupervisor)
#include "tst_managersupervisor.moc"
