#include "../testsupport.h"
#include "fingerprint.h"
#include "guiprobe.h"
#include "tarnclt.h"

#include <QDir>
#include <QFileInfo>
#include <QHeaderView>
#include <QRandomGenerator>
#include <QSettings>
#include <functional>
#include <memory>

using namespace testsupport;

namespace {

const QString AutoStartKey = QStringLiteral("Server/AutoStart");
const QString AutoPortKey = QStringLiteral("Server/AutoPort");
const QString PortNrKey = QStringLiteral("Server/PortNr");

QString Stopped() { return Colored(QStringLiteral("Stopped"), QStringLiteral("red")); }
QString Running() { return Colored(QStringLiteral("Running"), QStringLiteral("green")); }

QString ConfigPath()
{
    return QCoreApplication::applicationDirPath() + QStringLiteral("/TarnSrv.cfg");
}

// A client gets in and is answered.
void ExpectServing(quint16 port)
{
    TarnClt client;
    ClientRecord rec = Record(QUuid::createUuid().toString(), QStringLiteral("Ann"));
    QVERIFY(client.Open(LocalUrl(port), &rec));
    QCOMPARE(client.Ping(), 0);
}

QVariantMap StoredSettings()
{
    QSettings store(QStringLiteral("VARNOK Labs"), QStringLiteral("VARNOK Manager"));
    QVariantMap map;
    const QStringList keys = store.allKeys();
    for (const QString &key : keys)
        map.insert(key, store.value(key));
    return map;
}

} // namespace

class TestTarnSrvGui : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        QSettings(QStringLiteral("VARNOK Labs"), QStringLiteral("VARNOK Manager")).clear();
        QFile::remove(ConfigPath());
    }

    void cleanup()
    {
        gui.reset();
        window.reset();
        QFile::remove(ConfigPath());
    }

    void startup_data()
    {
        QTest::addColumn<QVariantMap>("stored");
        QTest::addColumn<QString>("config");
        QTest::addColumn<int>("portIndex");
        QTest::addColumn<QString>("portText");
        QTest::addColumn<bool>("autoStart");
        QTest::addColumn<QVariantMap>("storedAfter");

        const QVariantMap none;
        const QVariantMap manual0123{{AutoPortKey, false}, {PortNrKey, QStringLiteral("0123")}};
        const QVariantMap autoStart{{AutoStartKey, true}};
        const QVariantMap autoStartText{{AutoStartKey, QStringLiteral("true")}};
        const QVariantMap manual5{{AutoPortKey, QStringLiteral("false")}, {PortNrKey, QStringLiteral("5")}};
        const QVariantMap manual70000{{AutoPortKey, false}, {PortNrKey, QStringLiteral("70000")}};

        // PORT and LOG in the configuration are replaced by a free port and a log folder.
        QTest::newRow("nothing stored") << none << QString() << 0 << "" << false << none;
        QTest::newRow("manual 0123") << manual0123 << QString() << 1 << "123" << false << manual0123;
        // Would listen on 70000 cut to 16 bits; an empty field leaves the port to the system.
        QTest::newRow("manual port out of range") << manual70000 << QString() << 1 << "" << false << manual70000;
        QTest::newRow("auto start") << autoStart << QString() << 0 << "" << true << autoStart;
        QTest::newRow("auto start as text") << autoStartText << QString() << 0 << "" << true << autoStartText;
        QTest::newRow("invalid file keeps settings") << manual5 << "PortNr = abc\n" << 1 << "5" << false << manual5;
        QTest::newRow("valid file") << none << "PortNr = PORT\nLoggingFolder = LOG\n" << 1 << "PORT" << true
                                    << QVariantMap{{AutoPortKey, false}, {PortNrKey, 0}, {AutoStartKey, "true"},
                                                   {QStringLiteral("Logging/Enable"), true},
                                                   {QStringLiteral("Logging/Folder"), "LOG"}};
    }

    void startup()
    {
        QFETCH(QVariantMap, stored);
        QFETCH(QString, config);
        QFETCH(int, portIndex);
        QFETCH(QString, portText);
        QFETCH(bool, autoStart);
        QFETCH(QVariantMap, storedAfter);

        const QString port = QString::number(FreePort());
        auto fill = [&](QString text) { return text.replace(QLatin1String("PORT"), port)
                                                    .replace(QLatin1String("LOG"), logDir.path()); };
        {
            QSettings store(QStringLiteral("VARNOK Labs"), QStringLiteral("VARNOK Manager"));
            for (auto it = stored.cbegin(); it != stored.cend(); ++it)
                store.setValue(it.key(), it.value());
        }
        if (!config.isEmpty())
            QVERIFY(WriteFile(ConfigPath(), fill(config).toUtf8()));

        OpenWindow();
        // The operator can compare the key with what a client shows.
        const QLineEdit *fingerprint = gui->Get<QLineEdit>("fingerprint_lineEdit");
        QVERIFY(Tarn::IsFingerprint(fingerprint->text()) && fingerprint->isReadOnly());
        QVERIFY(gui->LogView()->toPlainText().contains("TLS certificate SHA-256 fingerprint: " + fingerprint->text()));
        QCOMPARE(gui->PortMode()->currentIndex(), portIndex);
        QCOMPARE(gui->PortEdit()->text(), fill(portText));
        QCOMPARE(gui->PortEdit()->isEnabled(), portIndex == 1);
        QCOMPARE(gui->AutoStart()->isChecked(), autoStart);
        QCOMPARE(gui->Status(), autoStart ? Running() : Stopped());
        if (autoStart && portIndex == 1)
            QCOMPARE(QString::number(gui->ListeningPort()), port);

        // Restoring wrote nothing back; only a valid file stores its values.
        QVariantMap expected;
        for (auto it = storedAfter.cbegin(); it != storedAfter.cend(); ++it)
            expected.insert(it.key(), it.key() == PortNrKey && it.value() == 0 ? QVariant(port.toInt())
                                      : it.value().type() == QVariant::String ? QVariant(fill(it.value().toString()))
                                                                               : it.value());
        const QVariantMap actual = StoredSettings();
        QCOMPARE(actual.keys(), expected.keys());
        for (const QString &key : expected.keys())
            QCOMPARE(actual.value(key).toString(), expected.value(key).toString());
    }

    void restartKeepsManualPort()
    {
        OpenWindow();
        const QString port = QString::number(FreePort());
        gui->PortMode()->setCurrentIndex(1);
        QTest::keyClicks(gui->PortEdit(), port);
        Click("serverStart_pushButton");
        QCOMPARE(gui->Status(), Running());
        QCOMPARE(QString::number(gui->ListeningPort()), port);

        // The status as each log line arrives shows the flow from inside.
        QStringList seen;
        QObject watching;
        connect(gui->LogView(), &QPlainTextEdit::textChanged, &watching, [&] {
            if (seen.isEmpty() || seen.last() != gui->Status())
                seen.append(gui->Status());
        });
        Click("serverRestart_pushButton");
        QCOMPARE(gui->Status(), Stopped());
        QTRY_COMPARE(gui->Status(), Running());
        QCOMPARE(seen, QStringList({Colored(QStringLiteral("Stopping..."), QStringLiteral("blue")),
                                    Colored(QStringLiteral("Starting..."), QStringLiteral("blue"))}));
        QCOMPARE(QString::number(gui->ListeningPort()), port);
        ExpectServing(port.toUShort());
    }

    // A stop while stopped, a start while running: nothing happens. A stop during a restart keeps the restart.
    void redundantClicks()
    {
        OpenWindow();
        const QString logBefore = gui->LogView()->toPlainText();
        Click("serverStop_pushButton");
        QCOMPARE(gui->Status(), Stopped());
        QCOMPARE(gui->LogView()->toPlainText(), logBefore);

        Click("serverStart_pushButton");
        const QString logRunning = gui->LogView()->toPlainText();
        const quint16 port = gui->ListeningPort();
        Click("serverStart_pushButton");
        QCOMPARE(gui->Status(), Running());
        QCOMPARE(gui->LogView()->toPlainText(), logRunning);
        QCOMPARE(gui->ListeningPort(), port);

        Click("serverRestart_pushButton");
        Click("serverStop_pushButton");
        QCOMPARE(gui->Status(), Stopped());
        QTRY_COMPARE(gui->Status(), Running());
    }

    void operatorChangesStored()
    {
        OpenWindow();
        QCOMPARE(window->windowTitle(), QStringLiteral("VARNOK Tarn Server"));
        QVERIFY(!window->windowIcon().isNull());
        QTreeWidget *tree = gui->Tree();
        QCOMPARE(tree->columnWidth(0), 150);
        QCOMPARE(tree->columnWidth(1), 300);
        QCOMPARE(tree->headerItem()->text(0), QStringLiteral("Guest Name"));
        QCOMPARE(tree->headerItem()->text(1), QStringLiteral("Session UUID"));
        QCOMPARE(tree->headerItem()->textAlignment(1), int(Qt::AlignCenter));
        QVERIFY(!tree->header()->stretchLastSection());
        QCOMPARE(gui->PortMode()->itemText(0), QStringLiteral("Auto"));
        QCOMPARE(gui->PortMode()->itemText(1), QStringLiteral("Manual"));
        QCOMPARE(gui->Button("serverRestart_pushButton")->text(), QStringLiteral("Restart"));

        QVERIFY(!gui->PortEdit()->isEnabled());
        gui->PortMode()->setCurrentIndex(1);
        QCOMPARE(StoredSettings().value(AutoPortKey), QVariant(false));
        QVERIFY(gui->PortEdit()->isEnabled());

        QTest::keyClicks(gui->PortEdit(), QStringLiteral("8"));
        QCOMPARE(StoredSettings().value(PortNrKey).toString(), QStringLiteral("8"));
        QTest::keyClicks(gui->PortEdit(), QStringLiteral("0"));
        QCOMPARE(StoredSettings().value(PortNrKey).toString(), QStringLiteral("80"));

        gui->PortMode()->setCurrentIndex(0);
        QCOMPARE(StoredSettings().value(AutoPortKey), QVariant(true));
        QVERIFY(!gui->PortEdit()->isEnabled());

        QTest::mouseClick(gui->AutoStart(), Qt::LeftButton, {}, QPoint(6, gui->AutoStart()->height() / 2));
        QCOMPARE(StoredSettings().value(AutoStartKey), QVariant(true));
        QCOMPARE(gui->Status(), Stopped());
    }

    void portFieldTakesOnlyPorts_data()
    {
        QTest::addColumn<QString>("typed");
        QTest::addColumn<QString>("shown");

        QTest::newRow("highest port") << "65535" << "65535";
        QTest::newRow("one past it") << "65536" << "6553";
        QTest::newRow("beyond 16 bits") << "70000" << "7000";
        QTest::newRow("sign") << "-1" << "1";
        QTest::newRow("letters") << "12a" << "12";
    }

    void portFieldTakesOnlyPorts()
    {
        QFETCH(QString, typed);
        QFETCH(QString, shown);
        OpenWindow();
        gui->PortMode()->setCurrentIndex(1);
        QTest::keyClicks(gui->PortEdit(), typed);
        QCOMPARE(gui->PortEdit()->text(), shown);
        QCOMPARE(StoredSettings().value(PortNrKey).toString(), shown);
    }

    void zeroManualPortUsesSystemPort()
    {
        OpenWindow();
        gui->PortMode()->setCurrentIndex(1);
        QTest::keyClicks(gui->PortEdit(), QStringLiteral("0"));
        Click("serverStart_pushButton");
        QCOMPARE(gui->Status(), Running());
        QVERIFY(gui->ListeningPort() > 1024);
        QCOMPARE(StoredSettings().value(PortNrKey).toString(), QStringLiteral("0"));
    }

    // Clicks land while a start or stop is still processing events, as an
    // impatient operator's do. Whatever the order, the server's steps never
    // interleave in the log, and the window ends in a state that matches the server.
    void burstOfClicks()
    {
        OpenWindow();
        const char *const buttons[] = {"serverStart_pushButton", "serverStop_pushButton", "serverRestart_pushButton"};
        QRandomGenerator random(15);
        int clicks = 0;
        QObject clicking; // ends the clicks still armed when the test returns early
        std::function<void()> clickLater = [&] {
            const int delayMs = random.bounded(2) ? 0 : int(random.bounded(300));
            QTimer::singleShot(delayMs, &clicking, [&] {
                // Armed before this click, so the next one can land inside the step it begins.
                if (++clicks < 30)
                    clickLater();
                Click(buttons[random.bounded(3)]);
            });
        };
        clickLater();
        QTRY_VERIFY_WITH_TIMEOUT(clicks >= 30, 30000);
        // A restart still due runs once its old endpoint is gone.
        QTest::qWait(300);
        for (const char *button : buttons)
            QVERIFY(gui->Button(button)->isEnabled());

        static const QRegularExpression prefix(QStringLiteral("^[\\d. :]+ - \\w+ : "));
        const QStringList flow{QStringLiteral("Starting Tarn server."), QStringLiteral("Tarn server started on port"),
                               QStringLiteral("Disconnecting all clients..."), QStringLiteral("Stopping Tarn server..."),
                               QStringLiteral("Tarn server stopped.")};
        QStringList steps;
        const QStringList lines = gui->LogView()->toPlainText().split(QLatin1Char('\n'));
        for (QString line : lines) {
            line.remove(prefix);
            for (int i = 0; i < flow.size(); ++i)
                if (line.startsWith(flow.at(i)))
                    steps.append(QString::number(i));
        }
        // Each start logs 0 1, each stop 2 3 4, one after the other.
        static const QRegularExpression wellFormed(QStringLiteral("^(01|234)*$"));
        const QString sequence = steps.join(QString());
        QVERIFY2(wellFormed.match(sequence).hasMatch(), qPrintable(sequence));
        const bool running = sequence.endsWith(QLatin1String("01"));
        QCOMPARE(gui->Status(), running ? Running() : Stopped());

        if (!running)
            Click("serverStart_pushButton");
        ExpectServing(gui->ListeningPort());
    }

    void clientsTree()
    {
        OpenWindow();
        Click("serverStart_pushButton");
        const QUrl url = LocalUrl(gui->ListeningPort());
        const QString s1 = QStringLiteral("{11111111-0000-0000-0000-000000000001}");
        const QString s2 = QStringLiteral("{22222222-0000-0000-0000-000000000002}");
        const QString s3 = QStringLiteral("{33333333-0000-0000-0000-000000000003}");
        std::vector<ClientRecord> records{Record(s1, QStringLiteral("Ann")), Record(s2, QStringLiteral("Bob")),
                                          Record(s1, QStringLiteral("Cid")), Record(s3, QStringLiteral("Bob")),
                                          Record(s3, QString())};
        std::vector<std::unique_ptr<TarnClt>> clients;
        for (ClientRecord &rec : records) {
            clients.push_back(std::make_unique<TarnClt>());
            QVERIFY(clients.back()->Open(url, &rec));
        }
        const QStringList all{"Ann " + s1, "Bob " + s2, "Bob " + s3};
        QTRY_COMPARE(Rows(), all);

        clients.front()->Close();
        QTRY_COMPARE(Rows(), QStringList({"Bob " + s2, "Cid " + s1, "Bob " + s3}));
        clients.at(3)->Close();
        QTRY_COMPARE(Rows(), QStringList({"Bob " + s2, "Cid " + s1, " " + s3}));

        Click("serverStop_pushButton");
        QTRY_COMPARE(Rows(), QStringList());
    }

    void closingLogsOnlyClosedLine()
    {
        QVERIFY(WriteFile(ConfigPath(),
                          QStringLiteral("PortNr = %1\nLoggingFolder = %2\n").arg(FreePort()).arg(logDir.path()).toUtf8()));
        OpenWindow();
        QCOMPARE(gui->Status(), Running());
        TarnClt client;
        ClientRecord rec = Record(QUuid::createUuid().toString(), QStringLiteral("Ann"));
        QVERIFY(client.Open(LocalUrl(gui->ListeningPort()), &rec));

        QFile log(logDir.filePath(QStringLiteral("TarnSrvSvc.html")));
        QVERIFY(log.open(QIODevice::ReadOnly));
        const qint64 before = log.size();
        log.close();
        gui.reset();
        window.reset();

        QVERIFY(log.open(QIODevice::ReadOnly));
        QVERIFY(log.seek(before));
        const QString tail = QString::fromUtf8(log.readAll());
        static const QRegularExpression closing(QStringLiteral(
            "^<font color=\"black\">[\\d. :]+ - Info : </font><br>"
            "<font color=\"black\">[\\d. :]+ - Info : VARNOK Server closed\\.</font><br>$"));
        QVERIFY2(closing.match(tail).hasMatch(), qPrintable(tail));
    }

    void corruptSettingsFile()
    {
        const QString path = QSettings(QStringLiteral("VARNOK Labs"), QStringLiteral("VARNOK Manager")).fileName();
        QVERIFY(QDir().mkpath(QFileInfo(path).path()));
        QVERIFY(WriteFile(path, QByteArray("\xff\xfe\x00[[[\n===\n[Server\nAutoPort\n\x01\x02", 26) + QByteArray(4096, '\x80')));
        // Nothing usable in it: the window comes up with its defaults and still stores changes.
        OpenWindow();
        QCOMPARE(gui->Status(), Stopped());
        QCOMPARE(gui->PortMode()->currentIndex(), 0);
        QVERIFY(!gui->AutoStart()->isChecked());
        gui->PortMode()->setCurrentIndex(1);
        QCOMPARE(StoredSettings().value(AutoPortKey), QVariant(false));
    }

private:
    void OpenWindow();
    void Click(const char *button);
    QStringList Rows() const;

    std::unique_ptr<TarnSrvGui> window;
    std::unique_ptr<GuiProbe> gui;
    QTemporaryDir logDir;
};

void TestTarnSrvGui::OpenWindow()
{
    window = std::make_unique<TarnSrvGui>();
    gui = std::make_unique<GuiProbe>(*window);
    window->show();
    QCOMPARE(gui->Status(), QStringLiteral("-"));
    // The controls wait for the instance check.
    QVERIFY(!gui->Button("serverStart_pushButton")->isEnabled());
    QTRY_VERIFY(gui->Status() != QLatin1String("-"));
    QVERIFY(gui->Button("serverStart_pushButton")->isEnabled());
}

void TestTarnSrvGui::Click(const char *button)
{
    QTest::mouseClick(gui->Button(button), Qt::LeftButton);
}

QStringList TestTarnSrvGui::Rows() const
{
    QStringList rows;
    QTreeWidget *tree = gui->Tree();
    for (int i = 0; i < tree->topLevelItemCount(); ++i) {
        const QTreeWidgetItem *item = tree->topLevelItem(i);
        rows.append(item->text(0) + QLatin1Char(' ') + item->text(1));
        // Rows carry only their texts, centred horizontally.
        if (item->type() != 0 || item->textAlignment(0) != Qt::AlignHCenter
            || item->textAlignment(1) != Qt::AlignHCenter)
            rows.last() += QStringLiteral(" (bad item)");
    }
    return rows;
}

TARN_GUI_TEST_MAIN(TestTarnSrvGui)
#include "tst_tarnsrvgui.moc"
