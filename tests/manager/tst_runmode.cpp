#include "managercommandline.h"
#include "runmode.h"

#include <QProcess>
#include <QtTest>

using Tarn::RunMode;
Q_DECLARE_METATYPE(RunMode)

// The one rule for how the manager runs: arguments × display × build.
class TestRunMode : public QObject
{
    Q_OBJECT

private slots:
    void rule_data()
    {
        QTest::addColumn<bool>("headlessAsked");
        QTest::addColumn<QStringList>("environment");
        QTest::addColumn<bool>("windowBuilt");
        QTest::addColumn<RunMode>("mode");
        QTest::addColumn<bool>("notice");

        const QStringList none;
        const QStringList x11{"DISPLAY=:0"};
        QTest::newRow("no display") << false << none << true << RunMode::Headless << false;
        QTest::newRow("X11") << false << x11 << true << RunMode::Window << false;
        QTest::newRow("Wayland") << false << QStringList{"WAYLAND_DISPLAY=wayland-0"} << true << RunMode::Window << false;
        QTest::newRow("a platform named") << false << QStringList{"QT_QPA_PLATFORM=offscreen"} << true
                                          << RunMode::Window << false;
        // Set but empty names nothing (a service host's environment may carry such).
        QTest::newRow("empty names") << false << QStringList{"DISPLAY=", "WAYLAND_DISPLAY=", "QT_QPA_PLATFORM="}
                                     << true << RunMode::Headless << false;
        QTest::newRow("--headless on a display") << true << x11 << true << RunMode::Headless << false;
        QTest::newRow("windowless build on a display") << false << x11 << false << RunMode::Headless << true;
        QTest::newRow("windowless build, --headless") << true << x11 << false << RunMode::Headless << false;
        QTest::newRow("windowless build, no display") << false << none << false << RunMode::Headless << false;
    }

    void rule()
    {
        QFETCH(bool, headlessAsked);
        QFETCH(QStringList, environment);
        QFETCH(bool, windowBuilt);
        QFETCH(RunMode, mode);
        QFETCH(bool, notice);

        RunOptions options;
        options.headless = headlessAsked;
        const Tarn::RunModeChoice choice = Tarn::ChooseRunMode(options, Environment(environment), windowBuilt);
        QCOMPARE(choice.mode, mode);
        QCOMPARE(!choice.notice.isEmpty(), notice);
    }

    // The built program asks the rule with its own build: what --run-mode
    // prints is what a run would do.
    void program_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QStringList>("environment");
        QTest::addColumn<QString>("mode");

#ifdef TARN_GUI
        const QString onDisplay = QStringLiteral("window");
#else
        const QString onDisplay = QStringLiteral("headless");
#endif
        QTest::newRow("no display") << QStringList{} << QStringList{} << "headless";
        QTest::newRow("X11") << QStringList{} << QStringList{"DISPLAY=:0"} << onDisplay;
        QTest::newRow("--headless on X11") << QStringList{"--headless"} << QStringList{"DISPLAY=:0"} << "headless";
    }

    void program()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QStringList, environment);
        QFETCH(QString, mode);

        QProcess manager;
        manager.setProcessEnvironment(Environment(environment));
        manager.start(QStringLiteral(TARN_MANAGER_PATH), arguments << QStringLiteral("--run-mode"));
        QVERIFY(manager.waitForFinished(10000));
        QCOMPARE(manager.exitStatus(), QProcess::NormalExit);
        QCOMPARE(manager.exitCode(), 0);
        QCOMPARE(manager.readAllStandardOutput(), mode.toUtf8() + '\n');
    }

private:
    // The system's environment without any display, plus the assignments.
    static QProcessEnvironment Environment(const QStringList &assignments)
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        for (const char *name : {"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM"})
            env.remove(QLatin1String(name));
        for (const QString &assignment : assignments)
            env.insert(assignment.section(QLatin1Char('='), 0, 0), assignment.section(QLatin1Char('='), 1));
        return env;
    }
};

QTEST_GUILESS_MAIN(TestRunMode)
#include "tst_runmode.moc"
