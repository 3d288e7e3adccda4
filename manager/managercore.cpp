#include "managercore.h"

#include "exitcode.h"
#include "instanceguard.h"
#include "loglevel.h"
#include "logsink.h"
#include "product.h"

#include <QCoreApplication>
#include <QNetworkInterface>
#include <QTimer>

namespace {
const QString AutoStartKey = QStringLiteral("Server/AutoStart");
const QString AutoPortKey = QStringLiteral("Server/AutoPort");
const QString PortNrKey = QStringLiteral("Server/PortNr");
// Between construction and the start-up: the event loop runs first.
constexpr int InitDelayMs = 100;
// How often a stop request looks again while a start or stop is under way.
constexpr int StepRetryMs = 50;
} // namespace

ManagerCore::ManagerCore(const RunOptions &options, LogSink *log, QObject *parent)
    : QObject(parent)
    , options(options)
    , log(log)
    , settings(log)
{
    connect(&server, &TarnSrv::Log, log, &LogSink::Log);
    connect(&server, &TarnSrv::ClientsChanged, this, &ManagerCore::ClientsChanged);
    connect(&server, &TarnSrv::SocketDestroyed, this, &ManagerCore::ServerSocketDestroyed);
}

ManagerCore::~ManagerCore()
{
    // Closing never runs the stop flow; this one line is all the log gets.
    // A refused instance, or one closed before its check, never had a log.
    if (ownsLog)
        log->Log(QStringLiteral("\nVARNOK Server closed."), LogLevel::Info, false);
}

void ManagerCore::BeginStartUp()
{
    QTimer::singleShot(InitDelayMs, this, &ManagerCore::StartUp);
}

void ManagerCore::StartUp()
{
    if (!Claim()) {
        emit Refused(QStringLiteral("Another instance of %1 is already running.").arg(Tarn::ManagerName()));
        return;
    }
    emit Claimed();
    StartIfAsked();
}

bool ManagerCore::Claim()
{
    // A refused instance touches nothing: the running one owns the log,
    // the settings and the port.
    static InstanceGuard guard;
    if (!guard.Acquire())
        return false;
    ownsLog = true;
    QString report = QStringLiteral("VARNOK Server version " TARN_VERSION ".\n\n");
    settings.ApplyConfigFile(report);
    server.LoadIdentity();
    emit FingerprintChanged();
    emit StatusChanged(QStringLiteral("Stopped"), QStringLiteral("red"));
    RestorePortChoice();
    autoStart = settings.contains(AutoStartKey) && settings.value(AutoStartKey).toBool();
    return true;
}

void ManagerCore::StartIfAsked()
{
    const bool start = autoStart || options.start;
    if (start && StartServer(false) == 0)
        emit StartUpDone(WhereClientsConnect());
    else if (!options.headless || ReportNotServing(start))
        emit StartUpDone(start ? QStringLiteral("Not serving: the start failed.")
                               : QStringLiteral("Not serving: auto start is off."));
}

// A port out of range would be cut to 16 bits: the text stays empty instead.
void ManagerCore::RestorePortChoice()
{
    manualPort = settings.contains(AutoPortKey) && !settings.value(AutoPortKey).toBool();
    const int port = settings.value(PortNrKey).toInt();
    if (settings.contains(PortNrKey) && TarnSrvSettings::IsPort(port))
        portText = QString::number(port);
    if (options.port != 0) {
        manualPort = true;
        portText = QString::number(options.port);
    }
}

void ManagerCore::SetAutoStart(bool on)
{
    autoStart = on;
    settings.setValue(AutoStartKey, on);
}

void ManagerCore::SetManualPort(bool manual)
{
    manualPort = manual;
    settings.setValue(AutoPortKey, !manual);
}

void ManagerCore::SetPortText(const QString &text)
{
    portText = text;
    settings.setValue(PortNrKey, text);
}

// Without a window nobody can press Start: a start asked for on the command
// line that failed ends the process, so that a service fails visibly. False
// when the run ends.
bool ManagerCore::ReportNotServing(bool startFailed)
{
    if (startFailed && options.start) {
        QCoreApplication::exit(Tarn::StartFailed);
        return false;
    }
    if (!startFailed)
        log->Log(QStringLiteral("The server is not running: auto start is off. TarnSrv --start starts it."),
                 LogLevel::Warning, false);
    return true;
}

QString ManagerCore::WhereClientsConnect() const
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

void ManagerCore::SetStepRunning(bool running)
{
    stepRunning = running;
    emit StepRunningChanged(running);
}

int ManagerCore::StartServer(bool checkRunning)
{
    if (checkRunning && server.IsRunning())
        return 0;
    SetStepRunning(true);
    emit StatusChanged(QStringLiteral("Starting..."), QStringLiteral("blue"));
    QCoreApplication::processEvents();
    const int result = server.Start(manualPort ? portText.toInt(nullptr, 10) : 0);
    emit FingerprintChanged();
    if (result == 0 && options.headless)
        log->Log(WhereClientsConnect(), LogLevel::Info, false);
    if (result == 0)
        emit StatusChanged(QStringLiteral("Running"), QStringLiteral("green"));
    else
        emit StatusChanged(QStringLiteral("Stopped"), QStringLiteral("red"));
    SetStepRunning(false);
    return result;
}

void ManagerCore::Start()
{
    StartServer(true);
}

void ManagerCore::Stop()
{
    if (!server.IsRunning())
        return;
    SetStepRunning(true);
    emit StatusChanged(QStringLiteral("Stopping..."), QStringLiteral("blue"));
    QCoreApplication::processEvents();
    server.Stop();
    emit StatusChanged(QStringLiteral("Stopped"), QStringLiteral("red"));
    SetStepRunning(false);
}

void ManagerCore::Restart()
{
    if (server.IsRunning()) {
        restartPending = true;
        Stop();
        return;
    }
    StartServer(true);
}

void ManagerCore::StopAndQuit()
{
    if (stepRunning) {
        QTimer::singleShot(StepRetryMs, this, &ManagerCore::StopAndQuit);
        return;
    }
    restartPending = false;
    Stop();
    QCoreApplication::quit();
}

void ManagerCore::ServerSocketDestroyed()
{
    if (!restartPending)
        return;
    // Destroyed while another step processes events: start once that one is over.
    if (stepRunning) {
        QTimer::singleShot(0, this, &ManagerCore::ServerSocketDestroyed);
        return;
    }
    StartServer(true);
    restartPending = false;
}
