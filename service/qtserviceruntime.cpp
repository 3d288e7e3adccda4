#include "qtservice_p.h"

#include <QAbstractEventDispatcher>
#include <QTimer>
#include <memory>
#include <vector>

namespace {

const int StartTimeoutMs = 20000;
const unsigned long HandlerThreadWaitMs = 1000;

// controlHandler and serviceMain receive no context: this is how they find it.
QtServiceRuntimeState *currentState = nullptr;

// argc/argv in the local 8-bit encoding, valid while the object lives.
class ArgumentVector
{
public:
    explicit ArgumentVector(const QStringList &arguments)
    {
        for (const QString &arg : arguments)
            bytes.push_back(arg.toLocal8Bit());
        for (QByteArray &b : bytes)
            pointers.push_back(b.data());
        pointers.push_back(nullptr);
        argc = int(bytes.size());
    }

    int argc;
    char **argv() { return pointers.data(); }

private:
    std::vector<QByteArray> bytes;
    std::vector<char *> pointers;
};

void postControl(QtServiceRuntimeState *state, DWORD code)
{
    QCoreApplication::postEvent(state->controllerHandler,
                                new QEvent(QEvent::Type(QEvent::User + int(code))));
}

} // namespace

QtServiceRuntimeState::QtServiceRuntimeState(QtServiceBase::ServiceFlags flags)
    : status{Scm::OwnProcess, Scm::StateStopped, controlsForFlags(flags), 0, 0, 0, 0}
{
    currentState = this;
}

DWORD QtServiceRuntimeState::controlsForFlags(QtServiceBase::ServiceFlags flags)
{
    DWORD controls = 0;
    if (flags & QtServiceBase::CanBeSuspended)
        controls |= Scm::AcceptPauseContinue;
    if (!(flags & QtServiceBase::CannotBeStopped))
        controls |= Scm::AcceptStop;
    if (flags & QtServiceBase::StopOnShutdown)
        controls |= Scm::AcceptShutdown;
    return controls;
}

void QtServiceRuntimeState::sendStatus()
{
    if (resolveScmFunctions())
        scmFunctions().SetServiceStatus(statusHandle, &status);
}

void QtServiceRuntimeState::reportStatus(DWORD state)
{
    if (!resolveScmFunctions())
        return;
    status.dwCurrentState = state;
    sendStatus();
}

// Runs on the dispatcher thread for every control request, and once on the
// service-main thread for the start-up code. The lock is held from posting to
// waiting, so the main thread's wake-up cannot come before the wait.
static void WINAPI controlHandler(DWORD code)
{
    QtServiceRuntimeState *state = currentState;
    if (!state)
        return;
    state->mutex.lock();
    auto postAndWait = [state](DWORD posted) {
        postControl(state, posted);
        state->condition.wait(&state->mutex);
    };
    switch (code) {
    case Scm::ControlStartup:
        state->reportStatus(Scm::StateStartPending);
        postAndWait(code);
        state->reportStatus(Scm::StateRunning);
        break;
    case Scm::ControlStop:
        state->reportStatus(Scm::StateStopPending);
        postAndWait(Scm::ControlStop);
        break;
    case Scm::ControlShutdown:
        postAndWait(Scm::ControlStop);
        break;
    case Scm::ControlPause:
        state->reportStatus(Scm::StatePausePending);
        postAndWait(code);
        state->reportStatus(Scm::StatePaused);
        break;
    case Scm::ControlContinue:
        state->reportStatus(Scm::StateContinuePending);
        postAndWait(code);
        state->reportStatus(Scm::StateRunning);
        break;
    default:
        if (code >= Scm::FirstUserControl && code <= Scm::LastUserControl)
            postAndWait(code);
        break;
    }
    state->mutex.unlock();
    if (resolveScmFunctions() && state->status.dwCurrentState != Scm::StateStopped)
        state->sendStatus();
}

// The service entry the control manager calls on a thread of its own.
static void WINAPI serviceMain(DWORD argc, LPWSTR *argv)
{
    QtServiceRuntimeState *state = currentState;
    QtServiceBase *service = QtServiceBase::instance();
    if (!state || !service)
        return;
    for (DWORD i = 0; i < argc; ++i)
        state->serviceArgs.append(fromWide(argv[i]));
    state->startSemaphore.release();
    state->proceedSemaphore.acquire();

    state->statusHandle = scmFunctions().RegisterServiceCtrlHandlerW(wideText(service->serviceName()),
                                                                     controlHandler);
    if (!state->statusHandle)
        return;
    controlHandler(Scm::ControlStartup);
}

void HandlerThread::run()
{
    QtServiceBase *service = QtServiceBase::instance();
    const QString name = service->serviceName();
    SERVICE_TABLE_ENTRYW table[] = {
        {const_cast<LPWSTR>(wideText(name)), serviceMain},
        {nullptr, nullptr},
    };
    dispatcherOk = scmFunctions().StartServiceCtrlDispatcherW(table);
    if (dispatcherOk)
        return;
    const DWORD error = GetLastError();
    if (error == Scm::ErrorNotConnectedToManager) {
        fromConsole = true;
    } else {
        service->logMessage(QStringLiteral("The Service failed to start [%1]").arg(scmErrorText(error)),
                            QtServiceBase::Error);
    }
    currentState->startSemaphore.release();
}

void QtServiceControllerHandler::customEvent(QEvent *event)
{
    if (QtServiceBase *service = QtServiceBase::instance())
        QtServiceBaseData::of(service)->handleControlEvent(event);
}

void QtServiceBaseData::handleControlEvent(QEvent *event)
{
    const int code = event->type() - QEvent::User;
    switch (code) {
    case Scm::ControlStartup:
        q_ptr->start();
        break;
    case Scm::ControlStop:
        q_ptr->stop();
        QCoreApplication::quit();
        break;
    case Scm::ControlPause:
        q_ptr->pause();
        break;
    case Scm::ControlContinue:
        q_ptr->resume();
        break;
    default:
        if (code >= int(Scm::FirstUserControl) && code <= int(Scm::LastUserControl))
            q_ptr->processCommand(code - int(Scm::FirstUserControl));
        break;
    }
    if (sysd) {
        QMutexLocker locker(&sysd->mutex);
        sysd->condition.wakeAll();
    }
}

void QtServiceBaseData::stopWithError(int code)
{
    serviceSpecificExitCode = code ? code : Tarn::Failed;
    if (!sysd || !sysd->controllerHandler) {
        q_ptr->stop();
        QCoreApplication::exit(serviceSpecificExitCode);
        return;
    }
    {
        QMutexLocker locker(&sysd->mutex);
        sysd->reportStatus(Scm::StateStopPending);
    }
    // Queued behind any control request already posted, which is answered first.
    postControl(sysd, Scm::ControlStop);
}

int QtServiceBaseData::runApplication(bool asService, const QStringList &arguments)
{
    ArgumentVector argv(arguments);
    std::unique_ptr<QtServiceRuntimeState> state;
    if (asService) {
        state = std::make_unique<QtServiceRuntimeState>(flags);
        sysd = state.get();
    }
    q_ptr->createApplication(argv.argc, argv.argv());
    QCoreApplication *app = QCoreApplication::instance();
    if (!app)
        return Tarn::ServiceActionFailed;
    // No path set-up is needed: the service keeps the working directory and
    // environment it was started with.
    QtServiceStarter starter(this);
    QTimer::singleShot(0, &starter, &QtServiceStarter::slotStart);
    const int status = q_ptr->executeApplication();
    delete app;
    if (asService) {
        sysd = nullptr;
        currentState = nullptr;
    }
    return status;
}

bool QtServiceBaseData::runAsService()
{
    sysd = new QtServiceRuntimeState(flags);
    auto discardState = [this] {
        delete sysd;
        sysd = nullptr;
        currentState = nullptr;
    };
    if (!resolveScmFunctions()) {
        discardState();
        return false;
    }

    auto *thread = new HandlerThread;
    thread->start();
    if (!sysd->startSemaphore.tryAcquire(1, StartTimeoutMs))
        return false;
    if (!thread->dispatcherOk) {
        // The dispatcher has returned, so its thread is ending.
        thread->wait();
        const bool fromConsole = thread->fromConsole;
        delete thread;
        discardState();
        return fromConsole && controller.start(args.mid(1));
    }

    ArgumentVector argv(sysd->serviceArgs);
    q_ptr->createApplication(argv.argc, argv.argv());
    QCoreApplication *app = QCoreApplication::instance();
    if (!app)
        return false;
    QAbstractEventDispatcher::instance()->installNativeEventFilter(QtServiceAppEventFilter::instance());
    sysd->controllerHandler = new QtServiceControllerHandler(sysd);
    sysd->proceedSemaphore.release();

    const int status = q_ptr->executeApplication();
    if (serviceSpecificExitCode) {
        sysd->status.dwWin32ExitCode = Scm::ErrorServiceSpecificError;
        sysd->status.dwServiceSpecificExitCode = DWORD(serviceSpecificExitCode);
    } else {
        sysd->status.dwWin32ExitCode = DWORD(status);
    }
    sysd->reportStatus(Scm::StateStopped);

    if (thread->isRunning())
        thread->wait(HandlerThreadWaitMs);
    delete sysd->controllerHandler;
    sysd->controllerHandler = nullptr;
    if (thread->isFinished())
        delete thread;
    delete app;

    delete sysd;
    sysd = nullptr;
    currentState = nullptr;
    return true;
}

QtServiceAppEventFilter *QtServiceAppEventFilter::instance()
{
    static QtServiceAppEventFilter filter;
    return &filter;
}

bool QtServiceAppEventFilter::nativeEventFilter(const QByteArray &eventType, void *message, NativeEventResult *result)
{
    Q_UNUSED(eventType);
#ifdef Q_OS_WIN
    const MSG *msg = static_cast<const MSG *>(message);
    if (msg->message == WM_ENDSESSION && (msg->lParam & ENDSESSION_LOGOFF)) {
        *result = 1;
        return true;
    }
#else
    Q_UNUSED(message);
    Q_UNUSED(result);
#endif
    return false;
}
