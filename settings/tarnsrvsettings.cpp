#include "tarnsrvsettings.h"

#include "loglevel.h"
#include "logsink.h"
#include "product.h"

#include <QCoreApplication>
#include <QFile>
#include <QTextStream>

TarnSrvSettings::TarnSrvSettings(LogSink *log)
    : QSettings(Tarn::OrganizationName(), Tarn::ManagerName())
    , log(log)
{
}

QString TarnSrvSettings::ConfigFilePath()
{
    return QStringLiteral("%1/%2").arg(QCoreApplication::applicationDirPath(), QStringLiteral("TarnSrv.cfg"));
}

void TarnSrvSettings::ApplyConfigFile(QString &report)
{
    ApplyConfigFile(ConfigFilePath(), report);
}

void TarnSrvSettings::ApplyConfigFile(const QString &path, QString &report)
{
    ConfigValues values;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text)) {
        report += QStringLiteral("Configuration file ") + path + QStringLiteral(" not found.\n");
        report += QStringLiteral("Using previous configuration.\n");
    } else {
        report += QStringLiteral("Reading configuration file ") + path + QStringLiteral(".\n");
        if (ParseConfigStream(file, values, report)) {
            report += QStringLiteral("Using settings from configuration file.\n");
            StoreConfig(values);
        } else {
            report += QStringLiteral("Using previous configuration.\n");
        }
    }
    // The parsed switch counts even from an invalid file, and is on when there was none.
    // Each run begins a new file; the previous runs are kept as numbered generations.
    if (values.loggingEnabled)
        log->RotateLogFiles();
    log->Log(report, LogLevel::Info, false);
}

// A valid file always means a manual port and an automatic start.
void TarnSrvSettings::StoreConfig(const ConfigValues &values)
{
    setValue(QStringLiteral("Server/AutoPort"), false);
    setValue(QStringLiteral("Server/PortNr"), values.port);
    setValue(QStringLiteral("Server/AutoStart"), QStringLiteral("true"));
    setValue(QStringLiteral("Logging/Enable"), values.loggingEnabled);
    setValue(QStringLiteral("Logging/Folder"), values.loggingFolder);
    log->SetLogFile(values.loggingEnabled, values.loggingFolder);
}

bool TarnSrvSettings::ParseConfigStream(QFile &file, ConfigValues &values, QString &report)
{
    QTextStream in(&file);
    // UTF-8 unless a byte-order mark says otherwise; ASCII reads the same.
#if QT_VERSION < QT_VERSION_CHECK(6, 0, 0)
    in.setCodec("UTF-8"); // Qt 5 would read the locale's encoding; Qt 6 reads UTF-8 already
#endif
    int n = 1;
    while (!in.atEnd()) {
        const QString line = in.readLine();
        if (!ParseConfigLine(n++, line, values, report))
            return false;
    }
    if (values.port == 0) {
        report += QStringLiteral("Configuration file \"") + file.fileName()
                  + QStringLiteral("\" does not contain a valid configuration.\n");
        return false;
    }
    return true;
}

bool TarnSrvSettings::ParseConfigLine(int n, const QString &line, ConfigValues &values, QString &report)
{
    const QString quoted = QStringLiteral("Line number ") + QString::number(n) + QStringLiteral(" with value \"")
                           + line + QLatin1Char('"');
    if (!line.contains(QLatin1Char('='))) {
        report += quoted + QStringLiteral(".\nLine does not contain an equal sign.\n");
        return false;
    }
    const QStringList parts = line.split(QLatin1Char('='), Qt::KeepEmptyParts);
    if (parts.size() != 2) {
        report += quoted + QStringLiteral(" is malformed.\nExpecting format : <key> = <value>.\n");
        return false;
    }
    const QString key = parts.at(0).trimmed();
    const QString value = parts.at(1).trimmed();
    if (key == QLatin1String("PortNr")) {
        // Text that is no number reads as 0, which leaves the file without a
        // port; a number the port field cannot hold is refused here.
        const int port = value.toInt(nullptr, 10);
        if (port != 0 && !IsPort(port)) {
            report += quoted + QStringLiteral(" is out of range.\nExpecting a port number from %1 to %2.\n")
                                   .arg(MinPort)
                                   .arg(MaxPort);
            return false;
        }
        values.port = port;
        report += QStringLiteral("Port number: %1\n").arg(values.port);
    } else if (key == QLatin1String("LoggingEnable")) {
        values.loggingEnabled = value.toLower() == QLatin1String("true");
        report += QStringLiteral("Logging: ")
                  + (values.loggingEnabled ? QStringLiteral("enabled") : QStringLiteral("disabled"))
                  + QLatin1Char('\n');
    } else if (key == QLatin1String("LoggingFolder")) {
        values.loggingFolder = value;
        report += QStringLiteral("Logging folder: ") + value + QLatin1Char('\n');
    } else {
        report += quoted + QStringLiteral(" contains an invalid key.\n");
        return false;
    }
    return true;
}
