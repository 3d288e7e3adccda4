#include "../testsupport.h"
#include "fingerprint.h"
#include "tarnclt.h"
#include "tarnsrvgui.h"

#include <QCheckBox>
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QSettings>
#include <QTemporaryDir>
#include <QTreeWidget>
#include <QtTest>
#include <memory>

using namespace testsupport;

namespace {

QString Colored(const QString &text, const QString &color)
{
    return QStringLiteral("<font color=%1>%2</font>").arg(color, text);
}
const QString Stopped = Colored(QStringLiteral("Stopped"), QStringLiteral("red"));
const QString Running = Colored(QStringLiteral("Running"), QStringLiteral("green"));

QString ConfigPath()
{
    return QCoreApplication::applicationDirPath() + QStringLiteral("/TarnSrv.cfg");
}

QStringList AllStored()
{
    QSettings store(QStringLiteral("VARNOK Labs"), QStringLiteral("VARNOK Manager"));
    QStringList all;
    for (const QString &key : store.allKeys())
        all.append(key + QLatin1Char('=') + store.value(key).toString());
    return all;
}

} // namespace

class TestTarnSrvGui : public QObject
{
    Q_OBJECT

private slots:
    // The settings store and the single-instance lock live in a private folder:
    // the operator's settings stay untouched, and a manager running on the
    // machine does not refuse the test's windows.
    void initTestCase()
    {
        qputenv("XDG_CONFIG_HOME", configDir.path().toLocal8Bit());
        qputenv("TARN_INSTANCE_LOCK", configDir.filePath(QStringLiteral("instance.lock")).toLocal8Bit());
        const QSettings store(QStringLiteral("VARNOK Labs"), QStringLiteral("VARNOK Manager"));
        QVERIFY(store.fileName().startsWith(configDir.path()));
    }

    void init()
    {
        QSettings(QStringLiteral("VARNOK Labs"), QStringLiteral("VARNOK Manager")).clear();
        QFile::remove(ConfigPath());
    }

    void cleanup()
    {
        window.reset();
        QFile::remove(ConfigPath());
    }

    void startup_data()
    {
        QTest::addColumn<QVariantMap>("stored");
        QTest::addColumn<bool>("config"); // a valid TarnSrv.cfg with a free port and a log folder
        QTest::addColumn<bool>("manual");
        QTest::addColumn<QString>("portText"); // PORT: the configured one
        QTest::addColumn<bool>("autoStart");

        const QString autoPort = QStringLiteral("Server/AutoPort");
        QTest::newRow("nothing stored") << QVariantMap() << false << false << "" << false;
        QTest::newRow("manual 0123") << QVariantMap{{autoPort, false}, {"Server/PortNr", "0123"}} << false << true
                                     << "123" << false;
        // Would listen on 70000 cut to 16 bits; an empty field leaves the port to the system.
        QTest::newRow("manual port out of range") << QVariantMap{{autoPort, false}, {"Server/PortNr", "70000"}} << false
                                                  << true << "" << false;
        QTest::newRow("auto start") << QVariantMap{{"Server/AutoStart", true}} << false << false << "" << true;
        QTest::newRow("valid file") << QVariantMap() << true << true << "PORT" << true;
    }

    void startup()
    {
        QFETCH(QVariantMap, stored);
        QFETCH(bool, config);
        QFETCH(bool, manual);
        QFETCH(QString, portText);
        QFETCH(bool, autoStart);

        const QString port = QString::number(FreePort());
        {
            QSettings store(QStringLiteral("VARNOK Labs"), QStringLiteral("VARNOK Manager"));
            for (auto it = stored.cbegin(); it != stored.cend(); ++it)
                store.setValue(it.key(), it.value());
        }
        const QStringList before = AllStored();
        if (config)
            QVERIFY(WriteFile(ConfigPath(), ("PortNr = " + port + "\nLoggingFolder = " + logDir.path()).toUtf8()));

        OpenWindow();
        // The operator can compare the key with what a client shows.
        const QLineEdit *fingerprint = Get<QLineEdit>("fingerprint_lineEdit");
        QVERIFY(Tarn::IsFingerprint(fingerprint->text()) && fingerprint->isReadOnly());
        QVERIFY(LogText().contains("TLS certificate SHA-256 fingerprint: " + fingerprint->text()));
        QCOMPARE(PortMode()->currentIndex(), manual ? 1 : 0);
        QCOMPARE(PortEdit()->text(), portText.replace(QLatin1String("PORT"), port));
        QCOMPARE(PortEdit()->isEnabled(), manual);
        QCOMPARE(Get<QCheckBox>("autoStart_checkBox")->isChecked(), autoStart);
        QCOMPARE(Status(), autoStart ? Running : Stopped);
        if (autoStart && manual)
            QCOMPARE(QString::number(ListeningPort()), port);
        // Restoring writes nothing back; what a valid file stores is tst_settings' part.
        if (!config)
            QCOMPARE(AllStored(), before);
    }

    void operatorChoicesStored_data()
    {
        QTest::addColumn<QString>("typed");
        QTest::addColumn<QString>("shown");

        QTest::newRow("highest port") << "65535" << "65535";
        QTest::newRow("one past it") << "65536" << "6553";
        QTest::newRow("sign") << "-1" << "1";
    }

    void operatorChoicesStored()
    {
        QFETCH(QString, typed);
        QFETCH(QString, shown);
        OpenWindow();
        QVERIFY(!PortEdit()->isEnabled());
        PortMode()->setCurrentIndex(1);
        QVERIFY(AllStored().contains("Server/AutoPort=false"));
        QVERIFY(PortEdit()->isEnabled());
        QTest::keyClicks(PortEdit(), typed);
        QCOMPARE(PortEdit()->text(), shown);
        QVERIFY(AllStored().contains("Server/PortNr=" + shown));

        PortMode()->setCurrentIndex(0);
        QVERIFY(AllStored().contains("Server/AutoPort=true"));
        QVERIFY(!PortEdit()->isEnabled());
        QCheckBox *autoStart = Get<QCheckBox>("autoStart_checkBox");
        QTest::mouseClick(autoStart, Qt::LeftButton, {}, QPoint(6, autoStart->height() / 2));
        QVERIFY(AllStored().contains("Server/AutoStart=true"));
        QCOMPARE(Status(), Stopped);
    }

    // A restart keeps the manual port; a stop clicked during it keeps it too.
    void restartKeepsManualPort()
    {
        OpenWindow();
        const quint16 port = FreePort();
        PortMode()->setCurrentIndex(1);
        QTest::keyClicks(PortEdit(), QString::number(port));
        Click("serverStart_pushButton");
        QCOMPARE(Status(), Running);
        QCOMPARE(ListeningPort(), port);

        // The status as each log line arrives shows the flow from inside, where
        // the buttons are off: a click there cannot begin another step.
        QStringList seen;
        QObject watching;
        connect(window->findChild<QPlainTextEdit *>(), &QPlainTextEdit::textChanged, &watching, [&] {
            const QString now = Status() + (Get<QPushButton>("serverStop_pushButton")->isEnabled() ? "" : " off");
            if (seen.isEmpty() || seen.last() != now)
                seen.append(now);
        });
        Click("serverRestart_pushButton");
        QCOMPARE(Status(), Stopped);
        QTRY_COMPARE(Status(), Running);
        QCOMPARE(seen, QStringList({Colored(QStringLiteral("Stopping..."), QStringLiteral("blue")) + " off",
                                    Colored(QStringLiteral("Starting..."), QStringLiteral("blue")) + " off"}));
        QCOMPARE(ListeningPort(), port);

        Click("serverRestart_pushButton");
        Click("serverStop_pushButton");
        QCOMPARE(Status(), Stopped);
        QTRY_COMPARE(Status(), Running);
    }

    // One row per session, under its earliest client's name. Closing never
    // runs the stop flow: with clients still connected, one line follows.
    void clientsTreeAndClosing()
    {
        QVERIFY(WriteFile(ConfigPath(), QStringLiteral("PortNr = %1\nLoggingFolder = %2\n")
                                            .arg(FreePort()).arg(logDir.path()).toUtf8()));
        OpenWindow();
        QCOMPARE(Status(), Running);
        const QString s1 = QStringLiteral("{11111111-0000-0000-0000-000000000001}");
        const QString s2 = QStringLiteral("{22222222-0000-0000-0000-000000000002}");
        std::vector<ClientRecord> records{Record(s1, QStringLiteral("Ann")), Record(s2, QStringLiteral("Bob")),
                                          Record(s1, QStringLiteral("Cid"))};
        std::vector<std::unique_ptr<TarnClt>> clients;
        for (ClientRecord &rec : records) {
            clients.push_back(std::make_unique<TarnClt>());
            QVERIFY(clients.back()->Open(LocalUrl(ListeningPort()), &rec));
        }
        QTRY_COMPARE(Rows(), QStringList({"Ann " + s1, "Bob " + s2}));
        clients.front()->Close();
        QTRY_COMPARE(Rows(), QStringList({"Bob " + s2, "Cid " + s1}));

        const QString log = logDir.filePath(QStringLiteral("TarnSrvSvc.html"));
        const qsizetype before = FileBytes(log).size();
        window.reset();
        const QString tail = QString::fromUtf8(FileBytes(log).mid(before));
        static const QRegularExpression closing(QStringLiteral(
            "^<font color=\"black\">[\\d. :]+ - Info : </font><br>"
            "<font color=\"black\">[\\d. :]+ - Info : VARNOK Server closed\\.</font><br>$"));
        QVERIFY2(closing.match(tail).hasMatch(), qPrintable(tail));
    }

private:
    template <typename T> T *Get(const char *name) const { return window->findChild<T *>(QLatin1String(name)); }
    QString Status() const { return Get<QLabel>("serverStatusValue_label")->text(); }
    QComboBox *PortMode() const { return Get<QComboBox>("portNr_comboBox"); }
    QLineEdit *PortEdit() const { return Get<QLineEdit>("porNr_lineEdit"); }
    QString LogText() const { return window->findChild<QPlainTextEdit *>()->toPlainText(); }
    void Click(const char *button) { QTest::mouseClick(Get<QPushButton>(button), Qt::LeftButton); }
    // The port of the last "started on port" line of the log, 0 when none.
    quint16 ListeningPort() const
    {
        return LogText().section(QStringLiteral("Tarn server started on port "), -1).section('.', 0, 0).toUShort();
    }
    void OpenWindow();
    QStringList Rows() const;

    std::unique_ptr<TarnSrvGui> window;
    QTemporaryDir configDir, logDir;
};

void TestTarnSrvGui::OpenWindow()
{
    window = std::make_unique<TarnSrvGui>();
    window->show();
    // The icon comes from a static library's resources, registered on demand.
    QVERIFY(!window->windowIcon().isNull());
    QCOMPARE(Status(), QStringLiteral("-"));
    // The controls wait for the instance check.
    QVERIFY(!Get<QPushButton>("serverStart_pushButton")->isEnabled());
    QTRY_VERIFY(Status() != QLatin1String("-"));
    QVERIFY(Get<QPushButton>("serverStart_pushButton")->isEnabled());
}

QStringList TestTarnSrvGui::Rows() const
{
    QStringList rows;
    QTreeWidget *tree = Get<QTreeWidget>("server_treeWidget");
    for (int i = 0; i < tree->topLevelItemCount(); ++i) {
        const QTreeWidgetItem *item = tree->topLevelItem(i);
        rows.append(item->text(0) + QLatin1Char(' ') + item->text(1));
    }
    return rows;
}

QTEST_MAIN(TestTarnSrvGui)
#include "tst_tarnsrvgui.moc"
