#include "tarnsrvgui.h"
#include "ui_tarnsrvgui.h"

#include "instanceguard.h"
#include "logwindow.h"
#include "tarnresources.h"
#include "tarnsrvsettings.h"

#include <QMessageBox>
#include <QTimer>

namespace {
const QString AutoStartKey = QStringLiteral("Server/AutoStart");
const QString AutoPortKey = QStringLiteral("Server/AutoPort");
const QString PortNrKey = QStringLiteral("Server/PortNr");
constexpr int ManualPortIndex = 1;
} // namespace

TarnSrvGui::TarnSrvGui(QWidget *parent)
    : QMainWindow(parent)
    , ui(new Ui::TarnSrvGui)
{
    // The form's icon lives in the resources, registered on demand by a static library.
    InitTarnResources();
    ui->setupUi(this);
    connect(&server, SIGNAL(ClientsChanged()), this, SLOT(ClientsChanged()));
    ui->server_treeWidget->setColumnWidth(0, 150);
    ui->server_treeWidget->setColumnWidth(1, 300);
    logWindow = ui->logWindows_widget;
    settings = new TarnSrvSettings(logWindow);
    connect(&server, SIGNAL(Log(QString,quint32,bool)), logWindow, SLOT(Log(QString,quint32,bool)));
    connect(&server, SIGNAL(SocketDestroyed(QObject*)), this, SLOT(ServerSocketDestroyed(QObject*)));
    QTimer::singleShot(InitDelayMs, this, SLOT(InitGui()));
}

TarnSrvGui::~TarnSrvGui()
{
    // Closing never runs the stop flow; this one line is all the log gets.
    logWindow->Log(QStringLiteral("\nVARNOK Server closed."), 0, false);
    delete settings;
    settings = nullptr;
    delete ui;
}

QString TarnSrvGui::ColoredText(const QString &text, const QString &color)
{
    return QStringLiteral("<font color=%1>%2</font>").arg(color).arg(text);
}

void TarnSrvGui::ShowStatus(const QString &text, const QString &color)
{
    ui->serverStatusValue_label->setText(ColoredText(text, color));
}

void TarnSrvGui::InitGui()
{
    // A refused instance has closed its window, yet the remaining steps still run.
    CheckRunningInstance();

    QString report = QStringLiteral("VARNOK Server version ")
                     + QStringLiteral("%1.%2.%3").arg(1).arg(4).arg(0) + QStringLiteral(".\n\n");
    settings->ApplyConfigFile(report);
    ShowStatus(QStringLiteral("Stopped"), QStringLiteral("red"));
    RestorePortMode();
    RestorePortNumber();

    const bool autoStart = settings->contains(AutoStartKey) && settings->value(AutoStartKey).toBool();
    if (autoStart) {
        ui->autoStart_checkBox->setChecked(true);
        StartServer(false);
    }
}

// Signals stay blocked so the restored values are not written back.
void TarnSrvGui::RestorePortMode()
{
    bool autoPort = true;
    if (settings->contains(AutoPortKey)) {
        autoPort = settings->value(AutoPortKey).toBool();
        ui->portNr_comboBox->blockSignals(true);
        ui->portNr_comboBox->setCurrentIndex(autoPort ? 0 : ManualPortIndex);
    } else {
        ui->porNr_lineEdit->setEnabled(false);
        ui->portNr_comboBox->blockSignals(true);
        ui->portNr_comboBox->setCurrentIndex(0);
    }
    ui->portNr_comboBox->blockSignals(false);
    ui->porNr_lineEdit->setEnabled(!autoPort);
}

void TarnSrvGui::RestorePortNumber()
{
    if (!settings->contains(PortNrKey))
        return;
    const int port = settings->value(PortNrKey).toInt();
    ui->porNr_lineEdit->blockSignals(true);
    ui->porNr_lineEdit->setText(QString::number(port));
    ui->porNr_lineEdit->blockSignals(false);
}

void TarnSrvGui::CheckRunningInstance()
{
    static InstanceGuard guard;
    if (guard.Acquire())
        return;
    const QString text = QStringLiteral("Another instance of %1 is already running.\n")
                             .arg(QStringLiteral("VARNOK Manager"))
                         + QStringLiteral("The application will now close.");
    QMessageBox::information(this, QStringLiteral("Instance Limit Reached"), text, QMessageBox::Ok);
    close();
}

int TarnSrvGui::StartServer(bool checkRunning)
{
    if (checkRunning && server.IsRunning())
        return 0;
    ShowStatus(QStringLiteral("Starting..."), QStringLiteral("blue"));
    QCoreApplication::processEvents();
    const int port = ui->portNr_comboBox->currentIndex() == ManualPortIndex
                         ? ui->porNr_lineEdit->text().toInt(nullptr, 10)
                         : 0;
    const int result = server.Start(port);
    if (result == 0)
        ShowStatus(QStringLiteral("Running"), QStringLiteral("green"));
    else
        ShowStatus(QStringLiteral("Stopped"), QStringLiteral("red"));
    return result;
}

void TarnSrvGui::on_autoStart_checkBox_clicked(bool checked)
{
    settings->setValue(AutoStartKey, checked);
}

void TarnSrvGui::on_portNr_comboBox_currentIndexChanged(int index)
{
    settings->setValue(AutoPortKey, index == 0);
    ui->porNr_lineEdit->setEnabled(index == ManualPortIndex);
}

void TarnSrvGui::on_porNr_lineEdit_textChanged(const QString &text)
{
    settings->setValue(PortNrKey, text);
}

void TarnSrvGui::on_serverStart_pushButton_clicked()
{
    StartServer(true);
}

void TarnSrvGui::on_serverStop_pushButton_clicked()
{
    if (!server.IsRunning())
        return;
    ShowStatus(QStringLiteral("Stopping..."), QStringLiteral("blue"));
    QCoreApplication::processEvents();
    server.Stop();
    ShowStatus(QStringLiteral("Stopped"), QStringLiteral("red"));
}

void TarnSrvGui::on_serverRestart_pushButton_clicked()
{
    if (server.IsRunning()) {
        restartPending = true;
        on_serverStop_pushButton_clicked();
        return;
    }
    StartServer(true);
}

void TarnSrvGui::ServerSocketDestroyed(QObject *)
{
    if (!restartPending)
        return;
    StartServer(true);
    restartPending = false;
}

void TarnSrvGui::ClientsChanged()
{
    const QList<ActiveClient> clients = server.GetActiveClients();
    ui->server_treeWidget->clear();
    for (const ActiveClient &client : clients) {
        auto *item = new QTreeWidgetItem(0);
        item->setText(0, client.guestName);
        item->setText(1, client.sessionUuid.toString());
        item->setTextAlignment(0, Qt::AlignHCenter);
        item->setTextAlignment(1, Qt::AlignHCenter);
        ui->server_treeWidget->addTopLevelItem(item);
    }
}
