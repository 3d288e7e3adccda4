#include "instanceguard.h"
#include "guiprobe.h"

#include <QApplication>
#include <QMessageBox>
#include <QProcess>
#include <QtTest>
#include <memory>
#include <signal.h>

class TestInstanceGuard : public QObject
{
    Q_OBJECT

private slots:
    void deriveKey_data();
    void deriveKey();
    void refusedWindowStillStartsUp();
    void killedHolderDoesNotBlock();
    void simultaneousStartsLeaveOne();

private:
    std::unique_ptr<QProcess> StartHolder(const QString &mode);
};

std::unique_ptr<QProcess> TestInstanceGuard::StartHolder(const QString &mode)
{
    auto holder = std::make_unique<QProcess>();
    holder->start(QStringLiteral(GUARD_HOLDER_PATH), {mode});
    holder->waitForStarted();
    return holder;
}

void TestInstanceGuard::deriveKey_data()
{
    QTest::addColumn<QString>("suffix");
    QTest::addColumn<QString>("key");

    // Digests computed independently (sha1sum of the braced UUID and suffix).
    QTest::newRow("lock") << "_memLockKey" << "44d89d0d69cd9f9e8e06241fe11e3dd092d5650e";
    QTest::newRow("segment") << "_sharedmemKey" << "c5941c89cff674f1e4a3b599e7afc39260bdd0c3";
}

void TestInstanceGuard::deriveKey()
{
    QFETCH(QString, suffix);
    QFETCH(QString, key);
    const QUuid uuid(QStringLiteral("9913C03A-60E5-4B07-999E-D07C9D49BADE"));
    QCOMPARE(InstanceGuard::DeriveKey(uuid, suffix), key);
}

// The window's guard is one per process, so this process meets it refused
// exactly once: while another process holds the instance.
void TestInstanceGuard::refusedWindowStillStartsUp()
{
    auto holder = StartHolder(QStringLiteral("hold"));
    QVERIFY(holder->waitForReadyRead(5000));
    QCOMPARE(holder->readLine().trimmed(), QByteArray("held"));

    QString title, text;
    QMessageBox::StandardButtons buttons;
    QTimer dismiss;
    connect(&dismiss, &QTimer::timeout, this, [&] {
        if (auto *box = qobject_cast<QMessageBox *>(QApplication::activeModalWidget())) {
            title = box->windowTitle();
            text = box->text();
            buttons = box->standardButtons();
            box->button(QMessageBox::Ok)->click();
        }
    });
    dismiss.start(20);

    TarnSrvGui window;
    window.show();
    GuiProbe gui(window);
    QTRY_VERIFY(!title.isEmpty());
    QCOMPARE(title, QStringLiteral("Instance Limit Reached"));
    QCOMPARE(text, QStringLiteral("Another instance of VARNOK Manager is already running.\n"
                                  "The application will now close."));
    QCOMPARE(buttons, QMessageBox::StandardButtons(QMessageBox::Ok));
    // Closed, but the rest of the start-up ran all the same.
    QTRY_VERIFY(!window.isVisible());
    QVERIFY(gui.LogView()->toPlainText().contains(QStringLiteral("VARNOK Server version 1.4.0.")));
    QCOMPARE(gui.Status(), Colored(QStringLiteral("Stopped"), QStringLiteral("red")));

    // The running instance keeps its claim.
    InstanceGuard again;
    QVERIFY(!again.Acquire());
    holder->closeWriteChannel();
    QVERIFY(holder->waitForFinished(5000));
    QVERIFY(again.Acquire());
}

void TestInstanceGuard::killedHolderDoesNotBlock()
{
    auto holder = StartHolder(QStringLiteral("hold"));
    QVERIFY(holder->waitForReadyRead(5000));
    QCOMPARE(holder->readLine().trimmed(), QByteArray("held"));
    ::kill(pid_t(holder->processId()), SIGKILL);
    QVERIFY(holder->waitForFinished(5000));

    // The segment outlives its killed owner; a new guard clears it.
    InstanceGuard next;
    QVERIFY(next.Acquire());
}

void TestInstanceGuard::simultaneousStartsLeaveOne()
{
    std::vector<std::unique_ptr<QProcess>> probes;
    for (int i = 0; i < 4; ++i)
        probes.push_back(StartHolder(QStringLiteral("probe")));
    int held = 0;
    for (auto &probe : probes) {
        QVERIFY(probe->waitForFinished(10000));
        held += probe->readAllStandardOutput().trimmed() == "held";
    }
    QCOMPARE(held, 1);
}

TARN_GUI_TEST_MAIN(TestInstanceGuard)
#include "tst_instanceguard.moc"
