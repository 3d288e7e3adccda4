#include "tarnsrvgui.h"
#include "ui_tarnsrvgui.h"

#include "exitcode.h"
#include "logwindow.h"
#include "tarnresources.h"

#include <QGuiApplication>
#include <QIntValidator>
#include <QMessageBox>
#include <QTextStream>

namespace {
constexpr int ManualPortIndex = 1;

// Someone could answer a message box: the window runs only where the run-mode
// rule found a display, but offscreen or minimal platforms show nobody.
bool ShowsToSomeone()
{
    const QString platform = QGuiApplication::platformName();
    return platform != QLatin1String("offscreen") && platform != QLatin1String("minimal");
}

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
{
    // The form's icon lives in the resources, registered on demand by a static library.
    InitTarnResources();
    ui->setupUi(this);
    ui->porNr_lineEdit->setValidator(new PortValidator(ui->porNr_lineEdit));
    // Nothing may start the server or store a setting before the instance check.
    ui->server_groupBox->setEnabled(false);
    ui->server_treeWidget->setColumnWidth(0, 150);
    ui->server_treeWidget->setColumnWidth(1, 300);
    logWindow = ui->logWindows_widget;
    core = std::make_unique<ManagerCore>(options, &logWindow->Sink());
    connect(core.get(), &ManagerCore::StatusChanged, this, &TarnSrvGui::ShowStatus);
    connect(core.get(), &ManagerCore::StepRunningChanged, this, &TarnSrvGui::SetStepRunning);
    connect(core.get(), &ManagerCore::FingerprintChanged, this, &TarnSrvGui::ShowFingerprint);
    connect(core.get(), &ManagerCore::ClientsChanged, this, &TarnSrvGui::ClientsChanged);
    connect(core.get(), &ManagerCore::Claimed, this, &TarnSrvGui::EnableControls);
    connect(core.get(), &ManagerCore::Refused, this, &TarnSrvGui::ShowRefusal);
    core->BeginStartUp();
}

TarnSrvGui::~TarnSrvGui()
{
    // The core's last line goes to the log while the log still exists.
    core.reset();
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
    ui->fingerprint_lineEdit->setText(core->Fingerprint());
    ui->fingerprint_lineEdit->setCursorPosition(0);
}

void TarnSrvGui::EnableControls()
{
    ui->server_groupBox->setEnabled(true);
    ShowPortChoice();
    if (core->AutoStart())
        ui->autoStart_checkBox->setChecked(true);
}

// Shown with signals blocked: what is shown is stored already, or is this
// run's port from the command line, which is not stored.
void TarnSrvGui::ShowPortChoice()
{
    const QSignalBlocker modeBlocker(ui->portNr_comboBox);
    const QSignalBlocker portBlocker(ui->porNr_lineEdit);
    ui->portNr_comboBox->setCurrentIndex(core->ManualPort() ? ManualPortIndex : 0);
    ui->porNr_lineEdit->setEnabled(core->ManualPort());
    ui->porNr_lineEdit->setText(core->PortText());
}

void TarnSrvGui::ShowRefusal(const QString &text)
{
    if (ShowsToSomeone())
        QMessageBox::information(this, QStringLiteral("Instance Limit Reached"),
                                 text + QStringLiteral("\nThe application will now close."), QMessageBox::Ok);
    else
        QTextStream(stderr) << text << '\n';
    close();
    QCoreApplication::exit(Tarn::Refused);
}

// While a start or stop processes events, the buttons are off: a click in the
// meantime cannot begin another step inside this one.
void TarnSrvGui::SetStepRunning(bool running)
{
    for (QPushButton *button : {ui->serverStart_pushButton, ui->serverStop_pushButton, ui->serverRestart_pushButton})
        button->setEnabled(!running);
}

void TarnSrvGui::on_autoStart_checkBox_clicked(bool checked)
{
    core->SetAutoStart(checked);
}

void TarnSrvGui::on_portNr_comboBox_currentIndexChanged(int index)
{
    core->SetManualPort(index == ManualPortIndex);
    ui->porNr_lineEdit->setEnabled(index == ManualPortIndex);
}

void TarnSrvGui::on_porNr_lineEdit_textChanged(const QString &text)
{
    core->SetPortText(text);
}

void TarnSrvGui::on_serverStart_pushButton_clicked()
{
    core->Start();
}

void TarnSrvGui::on_serverStop_pushButton_clicked()
{
    core->Stop();
}

void TarnSrvGui::on_serverRestart_pushButton_clicked()
{
    core->Restart();
}

void TarnSrvGui::StopAndQuit()
{
    core->StopAndQuit();
}

void TarnSrvGui::ClientsChanged()
{
    const QList<ActiveClient> clients = core->ActiveClients();
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
