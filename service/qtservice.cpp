#include "qtservice_p.h"
#include "programguard.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cstdio>
#include <cstring>

QtServiceBase *QtServiceBaseData::instance = nullptr;

QtServiceBaseData::QtServiceBaseData(QtServiceBase *owner, const QString &name)
    : q_ptr(owner), controller(name)
{
}

namespace {

QString normalisedName(QString name)
{
    if (name.length() > 255) {
        qWarning("QtService: 'name' is longer than 255 characters.");
        name.truncate(255);
    }
    if (name.contains(QLatin1Char('\\'))) {
        qWarning("QtService: 'name' contains backslashes '\\'.");
        name.replace(QLatin1Char('\\'), QChar(0));
    }
    return name;
}

QByteArray latin1(const QString &text)
{
    return text.toLatin1();
}

// The password QtServiceController::install writes to the pipe, followed by
// a line end.
QString passwordFromStdin()
{
    const qint64 MaxPasswordBytes = 4096;
    QFile in;
    if (!in.open(stdin, QIODevice::ReadOnly))
        return QString();
    QByteArray password = in.read(MaxPasswordBytes);
    if (password.endsWith('\n'))
        password.chop(password.endsWith("\r\n") ? 2 : 1);
    return QString::fromUtf8(password);
}

const char usageText[] =
    "\n%s -[i|u|e|t|p|r|c|v|h]\n"
    "\t-i(nstall) [account] [password]\t: Install the service, optionally using given account and password\n"
    "\t-u(ninstall)\t: Uninstall the service.\n"
    "\t-e(xec)\t\t: Run as a regular application. Useful for debugging.\n"
    "\t-t(erminate)\t: Stop the service.\n"
    "\t-p(ause)\t: Pause the service.\n"
    "\t-r(esume)\t: Resume a paused service.\n"
    "\t-c(ommand) num\t: Send command code num to the service.\n"
    "\t-v(ersion)\t: Print version and status information.\n"
    "\t-h(elp)   \t: Show this help\n"
    "\tNo arguments\t: Start the service.\n";

} // namespace

QtServiceBase::QtServiceBase(int argc, char **argv, const QString &name)
{
    QtServiceBaseData::instance = this;
    d_ptr = new QtServiceBaseData(this, normalisedName(name));
    for (int i = 0; i < argc; ++i) {
        d_ptr->args.append(argv[i] ? QString::fromLocal8Bit(argv[i], int(strlen(argv[i])))
                                   : QString());
    }
}

QtServiceBase::~QtServiceBase()
{
    delete d_ptr;
    QtServiceBaseData::instance = nullptr;
}

QString QtServiceBase::serviceName() const
{
    return d_ptr->controller.serviceName();
}

QString QtServiceBase::serviceDescription() const
{
    return d_ptr->description;
}

void QtServiceBase::setServiceDescription(const QString &description)
{
    d_ptr->description = description;
}

QtServiceController::StartupType QtServiceBase::startupType() const
{
    return d_ptr->startupType;
}

void QtServiceBase::setStartupType(QtServiceController::StartupType type)
{
    d_ptr->startupType = type;
}

QtServiceBase::ServiceFlags QtServiceBase::serviceFlags() const
{
    return d_ptr->flags;
}

void QtServiceBase::setServiceFlags(ServiceFlags flags)
{
    if (d_ptr->flags == flags)
        return;
    d_ptr->flags = flags;
    if (QtServiceRuntimeState *state = d_ptr->sysd) {
        state->status.dwControlsAccepted = QtServiceRuntimeState::controlsForFlags(flags);
        state->sendStatus();
    }
}

void QtServiceBase::setFailureRestarts(const QList<int> &delaysMs, int resetSeconds)
{
    d_ptr->restartDelaysMs = delaysMs;
    d_ptr->restartResetSeconds = resetSeconds;
}

void QtServiceBase::setDelayedAutoStart(bool delayed)
{
    d_ptr->delayedAutoStart = delayed;
}

void QtServiceBase::setGuardedFiles(const QStringList &fileNames)
{
    d_ptr->guardedFiles = fileNames;
}

QString QtServiceBaseData::unguardedFile(const QString &account) const
{
    const QString program = executablePath();
    const QString folder = QFileInfo(program).absolutePath();
    QStringList paths = {folder, program};
    for (const QString &name : guardedFiles) {
        if (QFileInfo::exists(QDir(folder).filePath(name)))
            paths.append(QDir(folder).filePath(name));
    }
    for (const QString &path : paths) {
        const QString native = QDir::toNativeSeparators(path);
        const QString reason = openToOthers(native, account);
        if (!reason.isEmpty())
            return QStringLiteral("%1 (%2)").arg(native, reason);
    }
    return QString();
}

QtServiceBase *QtServiceBase::instance()
{
    return QtServiceBaseData::instance;
}

void QtServiceBase::stop() {}
void QtServiceBase::pause() {}
void QtServiceBase::resume() {}
void QtServiceBase::processCommand(int) {}

void QtServiceBase::stopWithError(int code)
{
    d_ptr->stopWithError(code);
}

void QtServiceBase::logMessage(const QString &message, MessageType type, int id, uint category,
                               const QByteArray &data)
{
    if (!resolveScmFunctions())
        return;
    static const WORD eventTypes[] = {0, 1, 2, 4};
    const WORD eventType = (type >= Success && type <= Information) ? eventTypes[type] : 0;
    ScmFunctions &scm = scmFunctions();
    HANDLE source = scm.RegisterEventSourceW(nullptr, wideText(serviceName()));
    if (!source)
        return;
    LPCWSTR text = wideText(message);
    scm.ReportEventW(source, eventType, WORD(category), DWORD(id), nullptr, 1, DWORD(data.size()),
                     &text, data.isEmpty() ? nullptr : const_cast<char *>(data.constData()));
    scm.DeregisterEventSource(source);
}

int QtServiceBase::exec()
{
    const QStringList &args = d_ptr->args;
    QtServiceController &controller = d_ptr->controller;
    const QByteArray name = latin1(serviceName());
    const QString option = args.size() > 1 ? args.at(1) : QString();
    auto is = [&option](const char *shortForm, const char *longForm) {
        return option == QLatin1String(shortForm) || option == QLatin1String(longForm);
    };

    if (is("-i", "-install")) {
        if (controller.isInstalled()) {
            fprintf(stderr, "The service %s is already installed\n", name.constData());
            return 0;
        }
        const QString account = args.size() > 2 ? args.at(2) : QString();
        const QString password = qEnvironmentVariableIsSet(QtServiceBaseData::PasswordOnStdinVar)
                                     ? passwordFromStdin()
                                     : args.size() > 3 ? args.at(3) : QString();
        const QString unguarded = d_ptr->unguardedFile(account);
        if (!unguarded.isEmpty()) {
            fprintf(stderr, "The service %s was not installed: other users can change %s\n",
                    name.constData(), unguarded.toLocal8Bit().constData());
            return Tarn::ServiceActionFailed;
        }
        if (!d_ptr->installService(account, password)) {
            fprintf(stderr, "The service %s could not be installed\n", name.constData());
            return Tarn::ServiceActionFailed;
        }
        printf("The service %s has been installed under: %s\n", name.constData(),
               latin1(QtServiceBaseData::executablePath()).constData());
        return 0;
    }
    if (is("-u", "-uninstall")) {
        if (!controller.isInstalled()) {
            fprintf(stderr, "The service %s is not installed\n", name.constData());
            return 0;
        }
        if (!controller.uninstall()) {
            fprintf(stderr, "The service %s could not be uninstalled\n", name.constData());
            return Tarn::ServiceActionFailed;
        }
        printf("The service %s has been uninstalled.\n", name.constData());
        return 0;
    }
    if (is("-v", "-version")) {
        const bool installed = controller.isInstalled();
        const bool running = controller.isRunning();
        printf("The service\n\t%s\n\t%s\n\n", name.constData(), latin1(args.value(0)).constData());
        printf("is %s", installed ? "installed" : "not installed");
        printf(" and %s\n\n", running ? "running" : "not running");
        return 0;
    }
    if (is("-e", "-exec")) {
        QStringList appArgs = args;
        appArgs.removeAt(1);
        const int status = d_ptr->runApplication(false, appArgs);
        if (status == Tarn::ServiceActionFailed)
            scmWarning(GetLastError(), "The service could not be executed.");
        return status;
    }
    if (is("-t", "-terminate")) {
        if (!controller.stop())
            scmWarning(GetLastError(), "The service could not be stopped.");
        return 0;
    }
    if (is("-p", "-pause")) {
        controller.pause();
        return 0;
    }
    if (is("-r", "-resume")) {
        controller.resume();
        return 0;
    }
    if (is("-c", "-command")) {
        const int code = args.size() > 2 ? args.at(2).toInt(nullptr, 10) : 0;
        controller.sendCommand(code);
        return 0;
    }
    if (is("-h", "-help")) {
        printf(usageText, latin1(args.value(0)).constData());
        return 0;
    }

    // No option, or a word that is none: run as the service.
    if (!d_ptr->runAsService()) {
        fprintf(stderr, "The service %s could not start\n", name.constData());
        return Tarn::ServiceNotStarted;
    }
    return 0;
}
