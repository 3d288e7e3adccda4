#pragma once

#include "managercore.h"

#include <QMainWindow>
#include <memory>

namespace Ui {
class TarnSrvGui;
}
class LogWindow;

// The manager's main window: server control panel, active clients and the
// log, a view over the manager's core.
class TarnSrvGui : public QMainWindow
{
    Q_OBJECT

public:
    explicit TarnSrvGui(const RunOptions &options = {}, QWidget *parent = nullptr);
    ~TarnSrvGui() override;

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
    void EnableControls();
    void ShowRefusal(const QString &text);
    void ClientsChanged();
    void ShowStatus(const QString &text, const QString &color);
    void ShowFingerprint();
    void SetStepRunning(bool running);

private:
    static QString ColoredText(const QString &text, const QString &color);
    void ShowPortChoice();

    Ui::TarnSrvGui *ui;
    LogWindow *logWindow = nullptr;
    // Made once the form holds the log; gone before the form's widgets.
    std::unique_ptr<ManagerCore> core;
};
