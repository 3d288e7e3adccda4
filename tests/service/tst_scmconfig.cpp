#include "scmapi.h"

#include <QScopeGuard>
#include <QTemporaryDir>
#include <QtTest>

#include <vector>

// The stand-in's recovery levels of ChangeServiceConfig2W, with Windows'
// rules and bounds, on a service created straight through the table.
class TestScmConfig : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QVERIFY(root.isValid());
        qputenv("TARN_SCM_ROOT", root.path().toLocal8Bit());
        QVERIFY(resolveScmFunctions());
    }

    void failureActions_data()
    {
        QTest::addColumn<DWORD>("level");
        QTest::addColumn<int>("restarts"); // -1: no action list
        QTest::addColumn<DWORD>("access");
        QTest::addColumn<DWORD>("error"); // 0: accepted
        QTest::addColumn<QString>("kept"); // what a query gives afterwards

        const DWORD all = Scm::ServiceAllAccess;
        // Each row starts from one restart after 5 s, reset after 60 s.
        const QString before = QStringLiteral("60:1/5000");
        QTest::newRow("16 restarts") << DWORD(Scm::FailureActionsLevel) << 16 << all << DWORD(0)
                                     << QStringLiteral("7:") + QStringLiteral("1/1000,").repeated(15) + QStringLiteral("1/1000");
        QTest::newRow("17 restarts") << DWORD(Scm::FailureActionsLevel) << 17 << all << DWORD(87) << before;
        QTest::newRow("no restarts") << DWORD(Scm::FailureActionsLevel) << 0 << all << DWORD(0) << QStringLiteral("7:");
        QTest::newRow("no action list keeps them") << DWORD(Scm::FailureActionsLevel) << -1 << all << DWORD(0) << before;
        QTest::newRow("restart without start access")
            << DWORD(Scm::FailureActionsLevel) << 1 << DWORD(Scm::ServiceChangeConfig | Scm::ServiceQueryConfig)
            << DWORD(5) << before;
        QTest::newRow("unknown level") << DWORD(5) << 1 << all << DWORD(124) << before;
    }

    void failureActions()
    {
        QFETCH(DWORD, level);
        QFETCH(int, restarts);
        QFETCH(DWORD, access);
        QFETCH(DWORD, error);
        QFETCH(QString, kept);

        ScmFunctions &scm = scmFunctions();
        SC_HANDLE manager = scm.OpenSCManagerW(nullptr, nullptr, Scm::ManagerAllAccess);
        SC_HANDLE service = scm.CreateServiceW(manager, u"probe", u"probe", Scm::ServiceAllAccess, Scm::OwnProcess,
                                               Scm::DemandStart, Scm::ErrorNormal, u"/bin/true", nullptr, nullptr,
                                               nullptr, nullptr, nullptr);
        SC_HANDLE limited = scm.OpenServiceW(manager, u"probe", access);
        const auto release = qScopeGuard([&] {
            scm.DeleteService(service);
            scm.CloseServiceHandle(limited);
            scm.CloseServiceHandle(service);
            scm.CloseServiceHandle(manager);
        });
        QVERIFY(service && limited);
        SC_ACTION first = {SC_ACTION_RESTART, 5000};
        SERVICE_FAILURE_ACTIONSW initial = {60, nullptr, nullptr, 1, &first};
        QVERIFY(scm.ChangeServiceConfig2W(service, Scm::FailureActionsLevel, &initial));

        // An empty list is not none: it removes the actions.
        std::vector<SC_ACTION> actions(size_t(qMax(restarts, 1)), SC_ACTION{SC_ACTION_RESTART, 1000});
        SERVICE_FAILURE_ACTIONSW change = {7, nullptr, nullptr, DWORD(qMax(restarts, 0)),
                                           restarts < 0 ? nullptr : actions.data()};
        QCOMPARE(bool(scm.ChangeServiceConfig2W(limited, level, &change)), error == 0);
        if (error)
            QCOMPARE(GetLastError(), error);

        std::vector<quint64> buffer(64);
        DWORD needed = 0;
        QVERIFY(scm.QueryServiceConfig2W(service, Scm::FailureActionsLevel, reinterpret_cast<LPBYTE>(buffer.data()),
                                         DWORD(buffer.size() * 8), &needed));
        const auto *failure = reinterpret_cast<const SERVICE_FAILURE_ACTIONSW *>(buffer.data());
        QString shown = QString::number(failure->dwResetPeriod) + QLatin1Char(':');
        for (DWORD i = 0; i < failure->cActions; ++i)
            shown += QStringLiteral("%1%2/%3")
                         .arg(QLatin1String(i ? "," : ""))
                         .arg(failure->lpsaActions[i].Type)
                         .arg(failure->lpsaActions[i].Delay);
        QCOMPARE(shown, kept);
        // A buffer one byte short of what the answer needs: 122, and the size.
        const DWORD fits = needed;
        buffer.assign(64, 0);
        QVERIFY(scm.QueryServiceConfig2W(service, Scm::FailureActionsLevel, reinterpret_cast<LPBYTE>(buffer.data()),
                                         fits, &needed));
        QVERIFY(!scm.QueryServiceConfig2W(service, Scm::FailureActionsLevel, reinterpret_cast<LPBYTE>(buffer.data()),
                                          fits - 1, &needed));
        QCOMPARE(GetLastError(), DWORD(122));
        QCOMPARE(needed, fits);
    }

private:
    QTemporaryDir root;
};

QTEST_GUILESS_MAIN(TestScmConfig)
#include "tst_scmconfig.moc"
