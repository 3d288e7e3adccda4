#pragma once

#include "managercommandline.h"
#include "tarnsrv.h"
#include "tarnsrvsettings.h"

#include <QObject>

class LogSink;

// What the manager does with or without its window: the single-instance
// check, the start-up (configuration file, identity, the choice to start),
// start, stop and restart one step at a time, the port choice and the
// settings behind it, the headless report, and the stop on request. The
// window (TarnSrvGui) is a view that drives it; a headless run uses it alone.
class ManagerCore : public QObject
{
    Q_OBJECT

public:
    ManagerCore(const RunOptions &options, LogSink *log, QObject *parent = nullptr);
    // Logs the closing line when this instance owned the log.
    ~ManagerCore() override;

    // Runs the start-up once the event loop is under way: the instance check,
    // then the configuration file, the identity and the stored choices
    // (Claimed), then the start the settings or the command line ask for
    // (StartUpDone, unless the run ends for want of the server). Refused,
    // touching nothing, when another manager runs: whoever runs the core
    // shows the text its way and ends with Tarn::Refused.
    void BeginStartUp();

    bool AutoStart() const { return autoStart; }
    void SetAutoStart(bool on);
    // The port choice: manual with its text, or left to the system. The
    // setters store it; a port from the command line is for this run only.
    bool ManualPort() const { return manualPort; }
    void SetManualPort(bool manual);
    QString PortText() const { return portText; }
    void SetPortText(const QString &text);

    QString Fingerprint() const { return server.Fingerprint(); }
    QList<ActiveClient> ActiveClients() const { return server.GetActiveClients(); }

public slots:
    void Start();
    void Stop();
    void Restart();
    // Stops the server the usual way, then ends the event loop with 0.
    void StopAndQuit();

signals:
    // This instance is the machine's manager: its settings are loaded.
    void Claimed();
    // Another manager runs; the text says so.
    void Refused(const QString &text);
    void StatusChanged(const QString &text, const QString &color);
    // While a start or stop processes events, no other step may begin.
    void StepRunningChanged(bool running);
    void FingerprintChanged();
    void ClientsChanged();
    // Start-up is over, the server listening or not, as the status says.
    void StartUpDone(const QString &status);

private slots:
    void ServerSocketDestroyed();

private:
    void StartUp();
    bool Claim();
    void StartIfAsked();
    int StartServer(bool checkRunning);
    void SetStepRunning(bool running);
    void RestorePortChoice();
    bool ReportNotServing(bool startFailed);
    QString WhereClientsConnect() const;

    const RunOptions options;
    LogSink *log;
    TarnSrv server;
    TarnSrvSettings settings;
    bool autoStart = false;
    bool manualPort = false;
    QString portText;
    bool restartPending = false;
    bool stepRunning = false;
    // Set once the instance check passed: the log is this instance's.
    bool ownsLog = false;
};
