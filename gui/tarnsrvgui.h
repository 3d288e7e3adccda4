#pragma once

#include "managercommandline.h"
#include "tarnsrv.h"

#include <QMainWindow>

namespace Ui {
class TarnSrvGui;
}
class LogWindow;
class TarnSrvSettings;

// The manager's main window: server control panel, active clients and the log.
class TarnSrvGui : public QMainWindow
{
    Q_OBJECT

public:
    explicit TarnSrvGui(const RunOptions &options = {}, QWidget *parent = nullptr);
    ~TarnSrvGui() override;

    // Delay between construction and the deferred start-up.
    static constexpr int InitDelayMs = 100;

public slots:
    // Stops the server the usual way, then ends the event loop with 0.
    void StopAndQuit();

private slots:
    void on_autoStart_checkBox_clicked(bool checked);
    void on_portNr_comboBox_currentIndexChanged(int index);
    void on_porNr_lineEdit_textChanged(const QString &text);
    void on_serverStart_pushButton_clicked();
    void on_serverStop_pushButton_clicked();
    void on_serverRestart_pushButton_clicked();
    void InitGui();
    bool CheckRunningInstance();
    void ClientsChanged();
    void ServerSocketDestroyed(QObject *socket);

private:
    static QString ColoredText(const QString &text, const QString &color);
    int StartServer(bool checkRunning);
    void ShowStatus(const QString &text, const QString &color);
    void ShowFingerprint();
    void SetStepRunning(bool running);
    void RestorePortMode();
    void RestorePortNumber();
    void ShowPortOfThisRun(int port);
    void ReportNotServing(bool startFailed);
    QString WhereClientsConnect() const;

    Ui::TarnSrvGui *ui;
    const RunOptions options;
    TarnSrv server;
    bool restartPending = false;
    bool stepRunning = false;
    // Set once the instance check passed: the log is this instance's.
    bool ownsLog = false;
    LogWindow *logWindow = nullptr;
    TarnSrvSettings *settings = nullptr;
};
