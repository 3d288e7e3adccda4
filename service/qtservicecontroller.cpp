#include "qtservice_p.h"

#include <QProcess>
#include <vector>

namespace {

// The manager and one service opened with the given access, closed again in
// reverse order.
class ScmServiceHandle
{
public:
    ScmServiceHandle(const QString &name, DWORD managerAccess, DWORD serviceAccess)
    {
        if (!resolveScmFunctions())
            return;
        manager = scmFunctions().OpenSCManagerW(nullptr, nullptr, managerAccess);
        if (manager)
            service = scmFunctions().OpenServiceW(manager, wideText(name), serviceAccess);
    }

    ~ScmServiceHandle()
    {
        if (service)
            scmFunctions().CloseServiceHandle(service);
        if (manager)
            scmFunctions().CloseServiceHandle(manager);
    }

    explicit operator bool() const { return service != nullptr; }
    SC_HANDLE operator*() const { return service; }

private:
    Q_DISABLE_COPY(ScmServiceHandle)
    SC_HANDLE manager = nullptr;
    SC_HANDLE service = nullptr;
};

const DWORD ConfigBufferSize = 8192;
const DWORD DescriptionBufferSize = 8096;

// The configuration in a fixed buffer, or null when the query failed.
const QUERY_SERVICE_CONFIGW *queryConfig(const ScmServiceHandle &handle, std::vector<quint64> &buffer)
{
    buffer.assign(ConfigBufferSize / sizeof(quint64), 0);
    auto *config = reinterpret_cast<LPQUERY_SERVICE_CONFIGW>(buffer.data());
    DWORD needed = 0;
    if (!handle || !scmFunctions().QueryServiceConfigW(*handle, config, ConfigBufferSize, &needed))
        return nullptr;
    return config;
}

bool sendControl(const QString &name, DWORD access, DWORD code)
{
    ScmServiceHandle handle(name, Scm::ManagerConnect, access);
    SERVICE_STATUS status;
    return handle && scmFunctions().ControlService(*handle, code, &status);
}

} // namespace

QtServiceController::QtServiceController(const QString &name)
    : d_ptr(new QtServiceControllerData(name, this))
{
}

QtServiceController::~QtServiceController()
{
    delete d_ptr;
}

QString QtServiceController::serviceName() const
{
    return d_ptr->serviceName;
}

bool QtServiceController::isInstalled() const
{
    return bool(ScmServiceHandle(d_ptr->serviceName, 0, Scm::ServiceQueryConfig));
}

bool QtServiceController::isRunning() const
{
    ScmServiceHandle handle(d_ptr->serviceName, 0, Scm::ServiceQueryStatus);
    SERVICE_STATUS status;
    return handle && scmFunctions().QueryServiceStatus(*handle, &status)
           && status.dwCurrentState != Scm::StateStopped;
}

QString QtServiceController::serviceFilePath() const
{
    std::vector<quint64> buffer;
    const QUERY_SERVICE_CONFIGW *config =
        queryConfig(ScmServiceHandle(d_ptr->serviceName, 0, Scm::ServiceQueryConfig), buffer);
    return config ? splitBinaryPath(fromWide(config->lpBinaryPathName)).first() : QString();
}

QString QtServiceController::serviceDescription() const
{
    ScmServiceHandle handle(d_ptr->serviceName, 0, Scm::ServiceQueryConfig);
    std::vector<quint64> buffer(DescriptionBufferSize / sizeof(quint64), 0);
    DWORD needed = 0;
    if (!handle
        || !scmFunctions().QueryServiceConfig2W(*handle, Scm::DescriptionLevel,
                                                reinterpret_cast<LPBYTE>(buffer.data()),
                                                DescriptionBufferSize, &needed)) {
        return QString();
    }
    return fromWide(reinterpret_cast<const SERVICE_DESCRIPTIONW *>(buffer.data())->lpDescription);
}

QtServiceController::StartupType QtServiceController::startupType() const
{
    std::vector<quint64> buffer;
    const QUERY_SERVICE_CONFIGW *config =
        queryConfig(ScmServiceHandle(d_ptr->serviceName, 0, Scm::ServiceQueryConfig), buffer);
    // Automatic, boot, system and disabled all read as automatic.
    return (!config || config->dwStartType == Scm::DemandStart) ? ManualStartup : AutoStartup;
}

bool QtServiceController::install(const QString &serviceFilePath, const QString &account,
                                  const QString &password)
{
    // The password goes through a pipe: a command line is visible to every
    // user of the machine.
    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QLatin1String(QtServiceBaseData::PasswordOnStdinVar), QStringLiteral("1"));
    process.setProcessEnvironment(environment);
    process.setProcessChannelMode(QProcess::ForwardedChannels);
    process.start(serviceFilePath, {QStringLiteral("-i"), account});
    if (!process.waitForStarted(-1))
        return false;
    process.write(password.toUtf8() + '\n');
    process.closeWriteChannel();
    process.waitForFinished(-1);
    return process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
}

bool QtServiceController::uninstall()
{
    ScmServiceHandle handle(d_ptr->serviceName, Scm::ManagerAllAccess, Scm::ServiceDelete);
    return handle && scmFunctions().DeleteService(*handle);
}

bool QtServiceController::start(const QStringList &arguments)
{
    ScmServiceHandle handle(d_ptr->serviceName, Scm::ManagerConnect, Scm::ServiceStart);
    if (!handle)
        return false;
    std::vector<LPCWSTR> argv;
    for (const QString &arg : arguments)
        argv.push_back(wideText(arg));
    return scmFunctions().StartServiceW(*handle, DWORD(argv.size()), argv.empty() ? nullptr : argv.data());
}

bool QtServiceController::start()
{
    return start(QStringList());
}

bool QtServiceController::stop()
{
    ScmServiceHandle handle(d_ptr->serviceName, Scm::ManagerConnect,
                            Scm::ServiceStop | Scm::ServiceQueryStatus);
    if (!handle)
        return false;
    SERVICE_STATUS status;
    if (!scmFunctions().ControlService(*handle, Scm::ControlStop, &status)) {
        scmWarning(GetLastError(), "stopping");
        return false;
    }
    // Bounded wait: ten polls of 200 ms.
    for (int poll = 0; status.dwCurrentState != Scm::StateStopped; ++poll) {
        if (poll == 10)
            return false;
        Sleep(200);
        if (!scmFunctions().QueryServiceStatus(*handle, &status))
            return false;
    }
    return true;
}

bool QtServiceController::pause()
{
    return sendControl(d_ptr->serviceName, Scm::ServicePauseContinue, Scm::ControlPause);
}

bool QtServiceController::resume()
{
    return sendControl(d_ptr->serviceName, Scm::ServicePauseContinue, Scm::ControlContinue);
}

bool QtServiceController::sendCommand(int code)
{
    if (!resolveScmFunctions() || uint(code) > 127)
        return false;
    if (!isRunning())
        return false;
    return sendControl(d_ptr->serviceName, Scm::ServiceUserDefinedControl,
                       Scm::FirstUserControl + DWORD(code));
}

namespace {

// A setting the service runs without: a control manager that lacks it
// (Wine's) leaves a warning, not a failed installation.
void configure(SC_HANDLE service, DWORD level, void *info, const char *what)
{
    if (!scmFunctions().ChangeServiceConfig2W(service, level, info))
        scmWarning(GetLastError(), what);
}

} // namespace

void QtServiceBaseData::configureInstalled(SC_HANDLE service)
{
    if (!description.isEmpty()) {
        SERVICE_DESCRIPTIONW info = {const_cast<LPWSTR>(wideText(description))};
        scmFunctions().ChangeServiceConfig2W(service, Scm::DescriptionLevel, &info);
    }
    if (!restartDelaysMs.isEmpty()) {
        std::vector<SC_ACTION> actions;
        for (int delay : restartDelaysMs)
            actions.push_back({SC_ACTION_RESTART, DWORD(qMax(delay, 0))});
        SERVICE_FAILURE_ACTIONSW failure = {DWORD(qMax(restartResetSeconds, 0)), nullptr, nullptr,
                                            DWORD(actions.size()), actions.data()};
        configure(service, Scm::FailureActionsLevel, &failure,
                  "The service's restarts after a failure could not be set.");
        SERVICE_FAILURE_ACTIONS_FLAG onErrorStop = {1};
        configure(service, Scm::FailureActionsFlagLevel, &onErrorStop,
                  "The service's restarts after a stop with an error could not be set.");
    }
    if (delayedAutoStart) {
        SERVICE_DELAYED_AUTO_START_INFO delayed = {1};
        configure(service, Scm::DelayedAutoStartLevel, &delayed,
                  "The service's delayed start could not be set.");
    }
}

bool QtServiceBaseData::installService(const QString &account, const QString &password)
{
    // Registered quoted, so that no shorter prefix of a path with spaces can
    // be taken for the program; a path that holds a quote cannot be quoted.
    const QString path = executablePath();
    if (path.isEmpty() || path.contains(QLatin1Char('"')) || !resolveScmFunctions())
        return false;
    ScmFunctions &scm = scmFunctions();
    SC_HANDLE manager = scm.OpenSCManagerW(nullptr, nullptr, Scm::ManagerAllAccess);
    if (!manager)
        return false;

    const DWORD startType = startupType == QtServiceController::AutoStartup ? Scm::AutoStart
                                                                            : Scm::DemandStart;
    // An account with a backslash (".\user", "DOMAIN\user", "NT SERVICE\name")
    // is passed as it is; a virtual or managed account has no password, and
    // an empty one is passed as none.
    QString user = account;
    QString secret = password;
    if (!user.isEmpty()) {
        if (!user.contains(QLatin1Char('\\')))
            user.prepend(QLatin1String(".\\"));
        if (user.endsWith(QLatin1String("\\LocalSystem"))) {
            user.clear();
            secret.clear();
        }
    }
    const QString name = controller.serviceName();
    const QString binaryPath = QLatin1Char('"') + path + QLatin1Char('"');
    // Own process only: the interactive flag is a legacy one that Windows 10
    // and later ignore.
    SC_HANDLE service = scm.CreateServiceW(
        manager, wideText(name), wideText(name), Scm::ServiceAllAccess, Scm::OwnProcess, startType,
        Scm::ErrorNormal, wideText(binaryPath), nullptr, nullptr, nullptr,
        user.isEmpty() ? nullptr : wideText(user), secret.isEmpty() ? nullptr : wideText(secret));
    const bool installed = service != nullptr;
    if (installed) {
        configureInstalled(service);
        scm.CloseServiceHandle(service);
    }
    scm.CloseServiceHandle(manager);
    return installed;
}

QString QtServiceBaseData::executablePath()
{
    // MAX_PATH characters first; long paths need more, up to the longest
    // path Windows knows. A result that fills the buffer was cut.
    const DWORD longestPath = 32768;
    for (DWORD size = 260;; size = qMin(size * 2, longestPath)) {
        std::vector<WCHAR> path(size);
        const DWORD length = GetModuleFileNameW(nullptr, path.data(), size);
        if (length == 0)
            return QString();
        if (length < size)
            return QString::fromUtf16(reinterpret_cast<const char16_t *>(path.data()), int(length));
        if (size == longestPath)
            return QString();
    }
}
