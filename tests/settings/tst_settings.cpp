#include "logwindow.h"
#include "tarnsrvsettings.h"

#include <QFile>
#include <QPlainTextEdit>
#include <QTemporaryDir>
#include <QtTest>

namespace {
const QString Banner = QStringLiteral("VARNOK Server version 1.4.0.\n\n");
const QByteArray Bom("\xEF\xBB\xBF");
}

class TestConfigFile : public QObject
{
    Q_OBJECT

private slots:
    void init();

    void parseLine_data();
    void parseLine();
    void workedExample();
    void applyFile_data();
    void applyFile();
    void storedValueTypes();

private:
    QStringList LoggedMessages(const LogWindow &window);
    QStringList ViewMessages(const LogWindow &window);
    void WriteConfig(const QByteArray &content);

    QTemporaryDir dir;
    QString configPath;
};

void TestConfigFile::init()
{
    configPath = dir.filePath(QStringLiteral("TarnSrv.cfg"));
    QFile::remove(configPath);
    QFile::remove(dir.filePath(QStringLiteral("TarnSrvSvc.html")));
    TarnSrvSettings(nullptr).clear();
}

void TestConfigFile::WriteConfig(const QByteArray &content)
{
    QFile file(configPath);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(content);
}

// The message parts of the log's lines, stamps and markup taken off.
QStringList TestConfigFile::LoggedMessages(const LogWindow &window)
{
    QFile file(window.LogFilePath());
    if (!file.open(QIODevice::ReadOnly))
        return {};
    QByteArray bytes = file.readAll();
    if (bytes.startsWith(Bom))
        bytes.remove(0, Bom.size());
    static const QRegularExpression line(
        QStringLiteral("<font color=\"black\">\\d\\d\\.\\d\\d\\.\\d{4} \\d\\d:\\d\\d:\\d\\d - Info : (.*?)</font><br>"));
    QStringList messages;
    QRegularExpressionMatchIterator it = line.globalMatch(QString::fromUtf8(bytes));
    while (it.hasNext())
        messages.append(it.next().captured(1));
    return messages;
}

// The message parts of the lines in the view.
QStringList TestConfigFile::ViewMessages(const LogWindow &window)
{
    static const QRegularExpression stamp(QStringLiteral("^\\d\\d\\.\\d\\d\\.\\d{4} \\d\\d:\\d\\d:\\d\\d - Info : "));
    QStringList lines = window.findChild<QPlainTextEdit *>()->toPlainText().split(QLatin1Char('\n'));
    for (QString &line : lines)
        line.remove(stamp);
    return lines;
}

void TestConfigFile::parseLine_data()
{
    QTest::addColumn<QString>("line");
    QTest::addColumn<bool>("valid");
    QTest::addColumn<QString>("report");
    QTest::addColumn<int>("port");
    QTest::addColumn<bool>("logging");
    QTest::addColumn<QString>("folder");

    QTest::newRow("port") << " PortNr=4000 " << true << "Port number: 4000\n" << 4000 << true << "";
    QTest::newRow("negative port") << "PortNr = -7" << true << "Port number: -7\n" << -7 << true << "";
    QTest::newRow("port not a number") << "PortNr = abc" << true << "Port number: 0\n" << 0 << true << "";
    QTest::newRow("logging TRUE") << "LoggingEnable = TRUE" << true << "Logging: enabled\n" << 0 << true << "";
    QTest::newRow("logging 1 is off") << "LoggingEnable = 1" << true << "Logging: disabled\n" << 0 << false << "";
    QTest::newRow("folder") << "LoggingFolder =  C:/logs " << true << "Logging folder: C:/logs\n" << 0 << true
                            << "C:/logs";
    QTest::newRow("empty folder") << "LoggingFolder =" << true << "Logging folder: \n" << 0 << true << "";
    QTest::newRow("empty line") << "" << false
                                << "Line number 3 with value \"\".\nLine does not contain an equal sign.\n" << 0
                                << true << "";
    QTest::newRow("blank line") << "   " << false
                                << "Line number 3 with value \"   \".\nLine does not contain an equal sign.\n" << 0
                                << true << "";
    QTest::newRow("two equal signs") << "PortNr = 80 = 81" << false
                                     << "Line number 3 with value \"PortNr = 80 = 81\" is malformed.\n"
                                        "Expecting format : <key> = <value>.\n"
                                     << 0 << true << "";
    QTest::newRow("key in other case") << "portnr = 80" << false
                                       << "Line number 3 with value \"portnr = 80\" contains an invalid key.\n" << 0
                                       << true << "";
}

void TestConfigFile::parseLine()
{
    QFETCH(QString, line);
    QFETCH(bool, valid);
    QFETCH(QString, report);
    QFETCH(int, port);
    QFETCH(bool, logging);
    QFETCH(QString, folder);

    ConfigValues values;
    QString text = QStringLiteral("before\n");
    QCOMPARE(TarnSrvSettings::ParseConfigLine(3, line, values, text), valid);
    QCOMPARE(text, "before\n" + report);
    QCOMPARE(values.port, port);
    QCOMPARE(values.loggingEnabled, logging);
    QCOMPARE(values.loggingFolder, folder);
}

void TestConfigFile::workedExample()
{
    const QString logs = dir.filePath(QStringLiteral("logs"));
    QVERIFY(QDir().mkpath(logs));
    {
        QFile old(logs + QStringLiteral("/TarnSrvSvc.html"));
        QVERIFY(old.open(QIODevice::WriteOnly));
        old.write("previous run");
    }
    WriteConfig(QStringLiteral("PortNr = 4000\r\nLoggingFolder = %1").arg(logs).toUtf8());

    LogWindow window;
    window.SetLogFile(true, dir.path());
    TarnSrvSettings settings(&window);
    QString report = Banner;
    settings.ApplyConfigFile(configPath, report);

    QCOMPARE(window.LogFilePath(), logs + QStringLiteral("/TarnSrvSvc.html"));
    QCOMPARE(LoggedMessages(window),
             QStringList({"VARNOK Server version 1.4.0.", "", "Reading configuration file " + configPath + ".",
                          "Port number: 4000", "Logging folder: " + logs,
                          "Using settings from configuration file.", ""}));
}

void TestConfigFile::applyFile_data()
{
    QTest::addColumn<bool>("exists");
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QStringList>("report");
    QTest::addColumn<bool>("oldLogRemoved");

    const QString invalid = QStringLiteral("Configuration file \"CFG\" does not contain a valid configuration.");
    const QString previous = QStringLiteral("Using previous configuration.");
    QTest::newRow("missing") << false << QByteArray()
                             << QStringList{"Configuration file CFG not found.", previous, ""} << true;
    QTest::newRow("empty file") << true << QByteArray()
                                << QStringList{"Reading configuration file CFG.", invalid, previous, ""} << true;
    QTest::newRow("logging off, no port") << true << QByteArray("LoggingEnable = false\n")
                                          << QStringList{"Reading configuration file CFG.", "Logging: disabled",
                                                         invalid, previous, ""}
                                          << false;
    QTest::newRow("bad second line") << true << QByteArray("PortNr = 4000\n\nLoggingEnable = false\n")
                                     << QStringList{"Reading configuration file CFG.", "Port number: 4000",
                                                    "Line number 2 with value \"\".",
                                                    "Line does not contain an equal sign.", previous, ""}
                                     << true;
    QTest::newRow("binary bytes") << true << QByteArray("\x01\xff\xfe=\x80")
                                  << QStringList{"Reading configuration file CFG.",
                                                 QString::fromUtf8("Line number 1 with value \"\x01\xef\xbf\xbd\xef\xbf\xbd="
                                                                   "\xef\xbf\xbd\" contains an invalid key."),
                                                 previous, ""}
                                  << true;
    QTest::newRow("huge line") << true << QByteArray(1 << 20, 'x')
                               << QStringList{"Reading configuration file CFG.",
                                              "Line number 1 with value \"" + QString(1 << 20, QLatin1Char('x')) + "\".",
                                              "Line does not contain an equal sign.", previous, ""}
                               << true;
    QTest::newRow("utf-8 with mark, no final break") << true << QByteArray("\xEF\xBB\xBFPortNr = 9\nLoggingEnable = Ja")
                                                     << QStringList{"Reading configuration file CFG.", "Port number: 9",
                                                                    "Logging: disabled",
                                                                    "Using settings from configuration file.", ""}
                                                     << false;
}

void TestConfigFile::applyFile()
{
    QFETCH(bool, exists);
    QFETCH(QByteArray, content);
    QFETCH(QStringList, report);
    QFETCH(bool, oldLogRemoved);

    if (exists)
        WriteConfig(content);
    LogWindow window;
    window.SetLogFile(true, dir.path());
    window.AppendPlainHtml(QStringLiteral("old"));
    TarnSrvSettings settings(&window);
    settings.setValue(QStringLiteral("Server/PortNr"), QStringLiteral("77"));
    QString text = Banner;
    settings.ApplyConfigFile(configPath, text);

    // A file that is not used leaves the stored settings alone.
    const bool used = report.contains(QStringLiteral("Using settings from configuration file."));
    QCOMPARE(settings.value(QStringLiteral("Server/PortNr")).toString(), used ? QStringLiteral("9") : "77");

    QFile log(dir.filePath(QStringLiteral("TarnSrvSvc.html")));
    QVERIFY(log.open(QIODevice::ReadOnly));
    QCOMPARE(log.readAll().contains("old<br>"), !oldLogRemoved);
    report.replaceInStrings(QStringLiteral("CFG"), configPath);
    QCOMPARE(ViewMessages(window), QStringList({"old", "VARNOK Server version 1.4.0.", ""}) + report);
}

void TestConfigFile::storedValueTypes()
{
    WriteConfig("PortNr = 4000\nLoggingEnable = true\n");
    LogWindow window;
    window.SetLogFile(true, dir.path());
    TarnSrvSettings settings(&window);
    QString report = Banner;
    settings.ApplyConfigFile(configPath, report);

    QCOMPARE(settings.value(QStringLiteral("Server/AutoPort")), QVariant(false));
    QCOMPARE(settings.value(QStringLiteral("Server/PortNr")), QVariant(4000));
    QCOMPARE(settings.value(QStringLiteral("Server/AutoStart")), QVariant(QStringLiteral("true")));
    QCOMPARE(settings.value(QStringLiteral("Logging/Enable")), QVariant(true));
    QCOMPARE(settings.value(QStringLiteral("Logging/Folder")), QVariant(QString()));
    // An empty folder puts the log at the root, as the file asked.
    QCOMPARE(window.LogFilePath(), QStringLiteral("/TarnSrvSvc.html"));
}

int main(int argc, char *argv[])
{
    QTemporaryDir config;
    qputenv("XDG_CONFIG_HOME", config.path().toLocal8Bit());
    QApplication app(argc, argv);
    TestConfigFile test;
    return QTest::qExec(&test, argc, argv);
}
#include "tst_configfile.moc"
