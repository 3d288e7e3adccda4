#include "tarnsrvgui.h"
#include "ui_tarnsrvgui.h"

#include "display.h"
#include "instanceguard.h"
#include "loglevel.h"
#include "logwindow.h"
#include "tarnresources.h"
#include "tarnsrvsettings.h"

#include <QIntValidator>
#include <QMessageBox>
#include <QNetworkInterface>
#include <QTextStream>
#include <QTimer>

namespace {
const QString AutoStartKey = QStringLiteral("Server/AutoStart");
const QString AutoPortKey = QStringLiteral("Server/AutoPort");
const QString PortNrKey = QStringLiteral("Server/PortNr");
constexpr int ManualPortIndex = 1;
constexpr int RefusedExitCode = 1;
constexpr int StartFailedExitCode = 1;
// How often a stop request looks again while a start or stop is under way.
constexpr int StepRetryMs = 50;

// QIntValidator lets a number above the top pass while it has no more digits
// than the top, as a step towards something valid; no port lies beyond 65535.
class PortValidator : public QIntValidator
{
public:
    explicit PortValidator(QObject *parent)
        : QIntValidator(TarnSrvSettings::MinPort, TarnSrvSettings::MaxPort, parent)
    {
    }

    State validate(QString &input, int &pos) const override
    {
        const State state = QIntValidator::validate(input, pos);
        return state == Intermediate && input.toInt() > top() ? Invalid : state;
    }
};
} // namespace

TarnSrvGui::TarnSrvGui(const RunOptions &options, QWidget *parent)
    : QMainWindow(parent)
    , ui(new Ui::TarnSrvGui)
    , options(options)
{
    // The form's icon lives in the resources, registered on demand by a static library.
    InitTarnResources();
    ui->setupUi(this);
    ui->porNr_lineEdit->setValidator(new PortValidator(ui->porNr_lineEdit));
    // Nothing may start the server or store a setting before the instance check.
    ui->server_groupBox->setEnabled(false);
    connect(&server, SIGNAL(ClientsChanged()), this, SLOT(ClientsChanged()));
    ui->server_treeWidget->setColumnWidth(0, 150);
    ui->server_treeWidget->setColumnWidth(1, 300);
    logWindow = ui->logWindows_widget;
    logWindow->Sink().SetHeadless(options.headless);
    settings = new TarnSrvSettings(&logWindow->Sink());
    connect(&server, SIGNAL(Log(QString,quint32,bool)), logWindow, SLOT(Log(QString,quint32,bool)));
    connect(&server, SIGNAL(SocketDestroyed(QObject*)), this, SLOT(ServerSocketDestroyed(QObject*)));
    QTimer::singleShot(InitDelayMs, this, SLOT(InitGui()));
}

TarnSrvGui::~TarnSrvGui()
{
    // Closing never runs the stop flow; this one line is all the log gets.
    // A refused instance, or one closed before its check, never had a log.
    if (ownsLog)
        logWindow->Log(QStringLiteral("\nVARNOK Server closed."), LogLevel::Info, false);
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

// Start loads the identity when the start-up could not.
void TarnSrvGui::ShowFingerprint()
{
    ui->fingerprint_lineEdit->setText(server.Fingerprint());
    ui->fingerprint_lineEdit->setCursorPosition(0);
}

void TarnSrvGui::InitGui()
{
    // A refused instance touches nothing: the running one owns the log,
    // the settings and the port.
    if (!CheckRunningInstance())
        return;
    ui->server_groupBox->setEnabled(true);

    QString report = QStringLiteral("VARNOK Server version " TARN_VERSION ".\n\n");
    settings->ApplyConfigFile(report);
    server.LoadIdentity();
    ShowFingerprint();
    ShowStatus(QStringLiteral("Stopped"), QStringLiteral("red"));
    RestorePortMode();
    RestorePortNumber();
    if (options.port != 0)
        ShowPortOfThisRun(options.port);

    const bool autoStart = settings->contains(AutoStartKey) && settings->value(AutoStartKey).toBool();
    if (autoStart)
        ui->autoStart_checkBox->setChecked(true);
    const bool start = autoStart || options.start;
    if (start && StartServer(false) == 0)
        return;
    if (options.headless)
        ReportNotServing(start);
}

// Without a window nobody can press Start: a start asked for on the command
// line that failed ends the process, so that a service fails visibly.
void TarnSrvGui::ReportNotServing(bool startFailed)
{
    if (startFailed && options.start)
        QCoreApplication::exit(StartFailedExitCode);
    else if (!startFailed)
        logWindow->Log(QStringLiteral("The server is not running: auto start is off. TarnSrv --start starts it."),
                       LogLevel::Warning, false);
}

// Shown with signals blocked: the port of this run is not stored.
void TarnSrvGui::ShowPortOfThisRun(int port)
{
    const QSignalBlocker modeBlocker(ui->portNr_comboBox);
    const QSignalBlocker portBlocker(ui->porNr_lineEdit);
    ui->portNr_comboBox->setCurrentIndex(ManualPortIndex);
    ui->porNr_lineEdit->setEnabled(true);
    ui->porNr_lineEdit->setText(QString::number(port));
}

QString TarnSrvGui::WhereClientsConnect() const
{
    const QString url = QStringLiteral("wss://%1:") + QString::number(server.ListeningPort());
    QStringList urls;
    for (const QHostAddress &address : QNetworkInterface::allAddresses())
        if (address.protocol() == QAbstractSocket::IPv4Protocol && !address.isLoopback())
            urls.append(url.arg(address.toString()));
    if (urls.isEmpty())
        urls.append(url.arg(QHostAddress(QHostAddress::LocalHost).toString()));
    return QStringLiteral("Clients connect to %1 (TLS certificate SHA-256 fingerprint: %2).")
        .arg(urls.join(QStringLiteral(", ")), server.Fingerprint());
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
    // A port out of range would be cut to 16 bits: leave the field empty instead.
    const int port = settings->value(PortNrKey).toInt();
    if (!TarnSrvSettings::IsPort(port))
        return;
    ui->porNr_lineEdit->blockSignals(true);
    ui->porNr_lineEdit->setText(QString::number(port));
    ui->porNr_lineEdit->blockSignals(false);
}

bool TarnSrvGui::CheckRunningInstance()
{
    static InstanceGuard guard;
    if (guard.Acquire()) {
        ownsLog = true;
        return true;
    }
    const QString text = QStringLiteral("Another instance of %1 is already running.")
                             .arg(QStringLiteral("VARNOK Manager"));
    if (Tarn::HasDisplay())
        QMessageBox::information(this, QStringLiteral("Instance Limit Reached"),
                                 text + QStringLiteral("\nThe application will now close."), QMessageBox::Ok);
    else
        QTextStream(stderr) << text << '\n';
    close();
    QCoreApplication::exit(RefusedExitCode);
    return false;
}

// While a start or stop processes events, the buttons are off: a click in the
// meantime cannot begin another step inside this one.
void TarnSrvGui::SetStepRunning(bool running)
{
    stepRunning = running;
    for (QPushButton *button : {ui->serverStart_pushButton, ui->serverStop_pushButton, ui->serverRestart_pushButton})
        button->setEnabled(!running);
}

int TarnSrvGui::StartServer(bool checkRunning)
{
    if (checkRunning && server.IsRunning())
        return 0;
    SetStepRunning(true);
    ShowStatus(QStringLiteral("Starting..."), QStringLiteral("blue"));
    QCoreApplication::processEvents();
    const int port = ui->portNr_comboBox->currentIndex() == ManualPortIndex
                         ? ui->porNr_lineEdit->text().toInt(nullptr, 10)
                         : 0;
    const int result = server.Start(port);
    ShowFingerprint();
    if (result == 0 && options.headless)
        logWindow->Log(WhereClientsConnect(), LogLevel::Info, false);
    if (result == 0)
        ShowStatus(QStringLiteral("Running"), QStringLiteral("green"));
    else
        ShowStatus(QStringLiteral("Stopped"), QStringLiteral("red"));
    SetStepRunning(false);
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
    SetStepRunning(true);
    ShowStatus(QStringLiteral("Stopping..."), QStringLiteral("blue"));
    QCoreApplication::processEvents();
    server.Stop();
    ShowStatus(QStringLiteral("Stopped"), QStringLiteral("red"));
    SetStepRunning(false);
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

void TarnSrvGui::StopAndQuit()
{
    if (stepRunning) {
        QTimer::singleShot(StepRetryMs, this, &TarnSrvGui::StopAndQuit);
        return;
    }
    restartPending = false;
    on_serverStop_pushButton_clicked();
    QCoreApplication::quit();
}

void TarnSrvGui::ServerSocketDestroyed(QObject *)
{
    if (!restartPending)
        return;
    // Destroyed while another step processes events: start once that one is over.
    if (stepRunning) {
        QTimer::singleShot(0, this, [this] { ServerSocketDestroyed(nullptr); });
        return;
    }
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
