#pragma once

#include <QSettings>

class LogSink;
class QFile;

// Values collected while reading the configuration file.
struct ConfigValues
{
    int port = 0;
    bool loggingEnabled = true;
    QString loggingFolder;
};

// The manager's per-user settings, with the reader of the TarnSrv.cfg file
// that overrides them at start-up.
class TarnSrvSettings : public QSettings
{
public:
    explicit TarnSrvSettings(LogSink *log);

    // Applies the configuration file next to the program; appends to report and logs it.
    void ApplyConfigFile(QString &report);
    void ApplyConfigFile(const QString &path, QString &report);

    // The ports an operator may choose; 0 leaves the choice to the system.
    static constexpr int MinPort = 1;
    static constexpr int MaxPort = 65535;
    static bool IsPort(int port) { return port >= MinPort && port <= MaxPort; }

    static QString ConfigFilePath();
    static bool ParseConfigStream(QFile &file, ConfigValues &values, QString &report);
    static bool ParseConfigLine(int n, const QString &line, ConfigValues &values, QString &report);

private:
    void StoreConfig(const ConfigValues &values);

    LogSink *log;
};
