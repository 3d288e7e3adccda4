#include "../testsupport.h"
#include "logwindow.h"
#include "tarnsrvsettings.h"

#include <QFile>
#include <QPlainTextEdit>
#include <QTemporaryDir>
#include <QtTest>

using namespace testsupport;

namespace {
const QString Banner = QStringLiteral("VARNOK Server version 1.4.0.\n\n");
const QStringList BannerLines{QStringLiteral("VARNOK Server version 1.4.0."), QString()};
const QString Previous = QStringLiteral("Using previous configuration.");
const QString Used = QStringLiteral("Using settings from configuration file.");
const QString Invalid = QStringLiteral("Configuration file \"CFG\" does not contain a valid configuration.");
const QString InfoLine =
    QStringLiteral("<font color=\"black\">\\d\\d\\.\\d\\d\\.\\d{4} \\d\\d:\\d\\d:\\d\\d - Info : (.*)</font>");
const QByteArray Bom("\xEF\xBB\xBF");

enum ConfigKind { Missing, File };

// Type and value, because QVariant's == converts between types.
QString Typed(const QVariant &v)
{
    return QString::fromLatin1(v.typeName()) + QLatin1Char(':') + v.toString();
}

// What a used file stores, typed.
QStringList Stored(const QSettings &settings)
{
    QStringList typed;
    for (const char *key : {"Server/AutoPort", "Server/PortNr", "Server/AutoStart", "Logging/Enable", "Logging/Folder"})
        typed.append(Typed(settings.value(QLatin1String(key))));
    return typed;
}

// The message parts of the log file's lines. A fragment that is not a whole
// Info line is kept as it stands, so foreign content shows in the comparison.
QStringList LoggedMessages(const QString &path)
{
    const QByteArray bytes = FileBytes(path);
    if (!bytes.startsWith(Bom))
        return {QString::fromUtf8(bytes.constData(), bytes.size())};
    static const QRegularExpression line(QRegularExpression::anchoredPattern(InfoLine));
    const QByteArray text = bytes.mid(Bom.size());
    // The length is passed on, so a NUL in a message does not end the text.
    QStringList fragments = QString::fromUtf8(text.constData(), text.size()).split(QStringLiteral("<br>"));
    if (!fragments.takeLast().isEmpty())
        fragments.append(QStringLiteral("<unterminated>"));
    for (QString &fragment : fragments) {
        const QRegularExpressionMatch match = line.match(fragment);
        if (match.hasMatch())
            fragment = match.captured(1);
    }
    return fragments;
}

// The message parts of the lines in the view.
QStringList ViewMessages(const LogWindow &window)
{
    static const QRegularExpression stamp(QStringLiteral("^\\d\\d\\.\\d\\d\\.\\d{4} \\d\\d:\\d\\d:\\d\\d - Info : "));
    QStringList lines = window.findChild<QPlainTextEdit *>()->toPlainText().split(QLatin1Char('\n'));
    for (QString &line : lines)
        line.remove(stamp);
    return lines;
}
} // namespace

class TestSettings : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        configPath = dir.filePath(QStringLiteral("TarnSrv.cfg"));
        QFile::remove(configPath);
        QFile::remove(LogPath());
        QFile::remove(PreviousLogPath());
        TarnSrvSettings(nullptr).clear();
    }

    void parseLine_data()
    {
        QTest::addColumn<QString>("line");
        QTest::addColumn<QString>("report"); // after "Line number 3 with value " when the line is refused

        const QString range = QStringLiteral("\" is out of range.\nExpecting a port number from 1 to 65535.\n");
        const QString noEqualSign = QStringLiteral("\".\nLine does not contain an equal sign.\n");
        QTest::newRow("port") << " PortNr=4000 " << "Port number: 4000\n";
        QTest::newRow("highest port") << "PortNr = 65535" << "Port number: 65535\n";
        QTest::newRow("port 0 leaves no port") << "PortNr = 0" << "Port number: 0\n";
        QTest::newRow("port above range") << "PortNr = 65536" << "\"PortNr = 65536" + range;
        QTest::newRow("negative port") << "PortNr = -7" << "\"PortNr = -7" + range;
        QTest::newRow("port not a number") << "PortNr = abc" << "Port number: 0\n";
        QTest::newRow("logging TRUE") << "LoggingEnable = TRUE" << "Logging: enabled\n";
        QTest::newRow("logging 1 is off") << "LoggingEnable = 1" << "Logging: disabled\n";
        QTest::newRow("folder") << "LoggingFolder =  C:/logs " << "Logging folder: C:/logs\n";
        QTest::newRow("empty folder") << "LoggingFolder=" << "Logging folder: \n";
        QTest::newRow("blank line") << "   " << "\"   " + noEqualSign;
        QTest::newRow("two equal signs") << "PortNr = 80 = 81"
                                         << "\"PortNr = 80 = 81\" is malformed.\nExpecting format : <key> = <value>.\n";
        QTest::newRow("key in other case") << " portnr = 80" << "\" portnr = 80\" contains an invalid key.\n";
    }

    // A refused line leaves the values as they were; an accepted one stores what the report says.
    void parseLine()
    {
        QFETCH(QString, line);
        QFETCH(QString, report);

        const bool valid = !report.startsWith(QLatin1Char('"'));
        if (!valid)
            report.prepend(QStringLiteral("Line number 3 with value "));
        static const QRegularExpression reported(QStringLiteral("^(Port number|Logging|Logging folder): (.*)\n$"));
        const QRegularExpressionMatch value = reported.match(report);
        ConfigValues values;
        QString text = QStringLiteral("before\n");
        QCOMPARE(TarnSrvSettings::ParseConfigLine(3, line, values, text), valid);
        QCOMPARE(text, "before\n" + report);
        QCOMPARE(values.port, value.captured(1) == QLatin1String("Port number") ? value.captured(2).toInt() : 0);
        QCOMPARE(values.loggingEnabled, value.captured(2) != QLatin1String("disabled"));
        QCOMPARE(values.loggingFolder, value.captured(1) == QLatin1String("Logging folder") ? value.captured(2) : QString());
    }

    // A valid file moves the log: the new folder's old file is kept as the previous run, the old folder's is left.
    void workedExample()
    {
        const QString logs = dir.filePath(QStringLiteral("logs"));
        QVERIFY(QDir().mkpath(logs));
        const QString newLog = logs + QStringLiteral("/TarnSrvSvc.html");
        for (const QString &path : {newLog, LogPath()})
            QVERIFY(WriteFile(path, "previous run"));
        WriteConfig("PortNr = 4000\r\nLoggingFolder = DIR/logs");

        LogWindow window;
        window.Sink().SetLogFile(true, dir.path());
        TarnSrvSettings settings(&window.Sink());
        QString report = Banner;
        settings.ApplyConfigFile(configPath, report);

        const QStringList lines = BannerLines
                                  + QStringList{"Reading configuration file " + configPath + ".", "Port number: 4000",
                                                "Logging folder: " + logs, Used, ""};
        QCOMPARE(window.Sink().LogFilePath(), newLog);
        QCOMPARE(LoggedMessages(newLog), lines);
        QCOMPARE(FileBytes(LogPath()), QByteArray("previous run"));
        QCOMPARE(FileBytes(logs + QStringLiteral("/TarnSrvSvc.1.html")), QByteArray("previous run"));

        QCOMPARE(Stored(settings), QStringList({"bool:false", "int:4000", "QString:true", "bool:true", "QString:" + logs}));
    }

    void applyFile_data()
    {
        QTest::addColumn<int>("kind");
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<QStringList>("report");
        QTest::addColumn<bool>("oldLogRotated");
        QTest::addColumn<bool>("reportInFile");

        const QString reading = QStringLiteral("Reading configuration file CFG.");
        const QStringList notFound{QStringLiteral("Configuration file CFG not found."), Previous, ""};
        const QString noEqualSign = QStringLiteral("Line does not contain an equal sign.");

        QTest::newRow("missing") << int(Missing) << QByteArray() << notFound << true << true;
        QTest::newRow("empty file") << int(File) << QByteArray() << QStringList{reading, Invalid, Previous, ""} << true
                                    << true;
        // Invalid, so the window keeps writing to the old file, which the parsed switch keeps.
        QTest::newRow("logging off, no port")
            << int(File) << QByteArray("LoggingEnable = false\n")
            << QStringList{reading, "Logging: disabled", Invalid, Previous, ""} << false << true;
        QTest::newRow("bad second line stops reading")
            << int(File) << QByteArray("PortNr = 4000\n\nLoggingEnable = false\n")
            << QStringList{reading, "Port number: 4000", "Line number 2 with value \"\".", noEqualSign, Previous, ""}
            << true << true;
        QTest::newRow("binary bytes")
            << int(File) << QByteArray("\x01\xff\xfe=\x80\x00\x02\n", 8)
            << QStringList{reading,
                           QString::fromUtf8("Line number 1 with value \"\x01\xef\xbf\xbd\xef\xbf\xbd=\xef\xbf\xbd")
                               + QChar(0) + QChar(2) + "\" contains an invalid key.",
                           Previous, ""}
            << true << true;
        QTest::newRow("utf-8 with mark, no final break")
            << int(File) << QByteArray("\xEF\xBB\xBFPortNr = 9\nLoggingEnable = Ja")
            << QStringList{reading, "Port number: 9", "Logging: disabled", Used, ""} << false << false;
        const QString utf16 = QStringLiteral("PortNr = 9\r\nLoggingEnable = n\u00E9\r\n");
        QTest::newRow("utf-16 with mark")
            << int(File)
            << QByteArray("\xFF\xFE") + QByteArray(reinterpret_cast<const char *>(utf16.utf16()), utf16.size() * 2)
            << QStringList{reading, "Port number: 9", "Logging: disabled", Used, ""} << false << false;
    }

    void applyFile()
    {
        QFETCH(int, kind);
        QFETCH(QByteArray, content);
        QFETCH(QStringList, report);
        QFETCH(bool, oldLogRotated);
        QFETCH(bool, reportInFile);

        if (kind == File)
            WriteConfig(content);
        LogWindow window;
        window.Sink().SetLogFile(true, dir.path());
        window.Sink().AppendPlainHtml(QStringLiteral("old"));
        TarnSrvSettings settings(&window.Sink());
        settings.setValue(QStringLiteral("Server/PortNr"), QStringLiteral("77"));
        QString text = Banner;
        settings.ApplyConfigFile(configPath, text);

        // A file that is not used leaves the stored settings alone; logging off, the empty folder is stored as it is.
        QCOMPARE(Stored(settings), report.contains(Used)
                                       ? QStringList({"bool:false", "int:9", "QString:true", "bool:false", "QString:"})
                                       : QStringList({":", "QString:77", ":", ":", ":"}));

        report.replaceInStrings(QStringLiteral("CFG"), configPath);
        QCOMPARE(text, Banner + report.join(QLatin1Char('\n')));
        QCOMPARE(ViewMessages(window), QStringList{"old"} + BannerLines + report);
        const QStringList old{"old"};
        QCOMPARE(LoggedMessages(LogPath()),
                 (oldLogRotated ? QStringList() : old) + (reportInFile ? BannerLines + report : QStringList()));
        QCOMPARE(LoggedMessages(PreviousLogPath()), oldLogRotated ? old : QStringList{"<no file>"});
    }

private:
    void WriteConfig(const QByteArray &content);
    QString LogPath() const { return dir.filePath(QStringLiteral("TarnSrvSvc.html")); }
    QString PreviousLogPath() const { return dir.filePath(QStringLiteral("TarnSrvSvc.1.html")); }

    QTemporaryDir dir;
    QString configPath;
};

void TestSettings::WriteConfig(const QByteArray &content)
{
    QVERIFY(WriteFile(configPath, QByteArray(content).replace("DIR", dir.path().toUtf8())));
}

int main(int argc, char *argv[])
{
    // The settings store lives in a private folder for the run.
    QTemporaryDir config;
    qputenv("XDG_CONFIG_HOME", config.path().toLocal8Bit());
    QApplication app(argc, argv);
    TestSettings test;
    return QTest::qExec(&test, argc, argv);
}
#include "tst_settings.moc"
