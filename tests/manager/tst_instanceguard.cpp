#include "../testsupport.h"
#include "instanceguard.h"

#include <QProcess>
#include <QScopeGuard>
#include <QTemporaryDir>
#include <QtTest>
#include <memory>
#include <signal.h>
#include <sys/stat.h>

using namespace testsupport;

namespace {

QProcessEnvironment Env(const QStringList &assignments)
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    for (const QString &assignment : assignments)
        env.insert(assignment.section(QLatin1Char('='), 0, 0), assignment.section(QLatin1Char('='), 1));
    return env;
}

// Says "held" or "refused"; a holder keeps the guard until its standard input closes.
std::unique_ptr<QProcess> StartHolder(const QProcessEnvironment &env)
{
    auto holder = std::make_unique<QProcess>();
    holder->setProcessEnvironment(env);
    holder->start(QStringLiteral(GUARD_HOLDER_PATH), QStringList());
    return holder;
}

bool Holds(QProcess &holder)
{
    return (holder.canReadLine() || holder.waitForReadyRead(10000)) && holder.readLine().trimmed() == "held";
}

} // namespace

class TestInstanceGuard : public QObject
{
    Q_OBJECT

private slots:
    // A lock of the test's own: a manager running on the machine refuses nothing here.
    void initTestCase()
    {
        qputenv("TARN_INSTANCE_LOCK", lockDir.filePath(QStringLiteral("instance.lock")).toLocal8Bit());
    }

    void deriveKey_data()
    {
        QTest::addColumn<QString>("suffix");
        QTest::addColumn<QString>("key");

        // Digests computed independently (sha1sum of the braced UUID and suffix).
        QTest::newRow("lock") << "_memLockKey" << "44d89d0d69cd9f9e8e06241fe11e3dd092d5650e";
    }

    void deriveKey()
    {
        QFETCH(QString, suffix);
        QFETCH(QString, key);
        const QUuid uuid(QStringLiteral("9913C03A-60E5-4B07-999E-D07C9D49BADE"));
        QCOMPARE(InstanceGuard::DeriveKey(uuid, suffix), key);
    }

    // The holder and the manager each have a temporary folder of their own, as
    // a systemd unit with a private /tmp and a desktop session do. The manager
    // is refused and ends at once, before any of the start-up that would take
    // the port, the settings or the log of the running one. The window (on the
    // offscreen platform) and the headless run both take the core's refusal.
    void refusedManagerTouchesNothing_data()
    {
        QTest::addColumn<QStringList>("arguments");

        QTest::newRow("window") << QStringList{};
        QTest::newRow("headless") << QStringList{"--headless"};
    }

    void refusedManagerTouchesNothing()
    {
        QFETCH(QStringList, arguments);
        QTemporaryDir holderTmp, managerTmp, app;
        auto holder = StartHolder(Env({"TMPDIR=" + holderTmp.path()}));
        QVERIFY(Holds(*holder));

        const QString program = app.filePath(QStringLiteral("TarnSrv"));
        QVERIFY(QFile::copy(QStringLiteral(TARN_MANAGER_PATH), program));
        const QString logDir = app.filePath(QStringLiteral("log"));
        const QString log = logDir + QStringLiteral("/TarnSrvSvc.html");
        QVERIFY(QDir().mkpath(logDir));
        QVERIFY(WriteFile(log, "the running manager's log"));
        QVERIFY(WriteFile(app.filePath(QStringLiteral("TarnSrv.cfg")),
                          QStringLiteral("PortNr = %1\nLoggingFolder = %2\n").arg(FreePort()).arg(logDir).toUtf8()));

        QProcess manager;
        const auto stop = qScopeGuard([&manager] {
            manager.kill();
            manager.waitForFinished();
        });
        const QString config = app.filePath(QStringLiteral("config"));
        manager.setProcessEnvironment(Env({"TMPDIR=" + managerTmp.path(), "XDG_CONFIG_HOME=" + config,
                                           "XDG_RUNTIME_DIR=" + managerTmp.path()}));
        manager.start(program, arguments);
        QVERIFY(manager.waitForFinished(10000));
        QCOMPARE(manager.exitStatus(), QProcess::NormalExit);
        QCOMPARE(manager.exitCode(), 1);
        const QByteArray err = manager.readAllStandardError();
        // One line of its own; Qt's and the sanitizers' reports may surround it.
        QVERIFY2(err.split('\n').contains("Another instance of VARNOK Manager is already running."), err.constData());
        QCOMPARE(err.count("already running"), 1);

        QCOMPARE(QDir(logDir).entryList(QDir::Files), QStringList{QStringLiteral("TarnSrvSvc.html")});
        QCOMPARE(FileBytes(log), QByteArray("the running manager's log"));
        QVERIFY(!QFileInfo::exists(config));

        // A holder killed outright leaves nothing that blocks the next one.
        ::kill(pid_t(holder->processId()), SIGKILL);
        QVERIFY(holder->waitForFinished(5000));
        InstanceGuard next;
        QVERIFY(next.Acquire());
    }

    void simultaneousStartsLeaveOne_data()
    {
        QTest::addColumn<QString>("lockFile");
        QTest::addColumn<bool>("lockUsable");

        QTest::newRow("machine-wide lock") << "instance.lock" << true;
        // Nowhere to put the lock: the shared-memory segment stands in.
        QTest::newRow("no place for the lock") << "missing/instance.lock" << false;
        QTest::newRow("a FIFO in the lock's place") << "instance.fifo" << false;
    }

    void simultaneousStartsLeaveOne()
    {
        QFETCH(QString, lockFile);
        QFETCH(bool, lockUsable);

        QTemporaryDir dir;
        const QString lock = dir.filePath(lockFile);
        if (lockFile.endsWith(QLatin1String(".fifo")))
            QCOMPARE(::mkfifo(QFile::encodeName(lock).constData(), 0644), 0);
        const QProcessEnvironment env = Env({"TARN_INSTANCE_LOCK=" + lock, "TMPDIR=" + dir.path()});
        // A service's restrictive umask must not lock other users out of the file.
        const mode_t umask = ::umask(077);
        std::vector<std::unique_ptr<QProcess>> holders;
        for (int i = 0; i < 4; ++i)
            holders.push_back(StartHolder(env));
        ::umask(umask);
        int held = 0;
        for (auto &holder : holders)
            held += Holds(*holder);
        QCOMPARE(held, 1);
        for (auto &holder : holders) {
            holder->closeWriteChannel();
            QVERIFY(holder->waitForFinished(5000));
        }

        struct stat st = {};
        if (lockUsable) {
            QCOMPARE(::stat(QFile::encodeName(lock).constData(), &st), 0);
            QCOMPARE(st.st_mode & 07777, mode_t(0644));
        }
    }

private:
    QTemporaryDir lockDir;
};

QTEST_GUILESS_MAIN(TestInstanceGuard)
#include "tst_instanceguard.moc"
