#include "stopsignals.h"

#ifdef Q_OS_WIN
#include <QAbstractNativeEventFilter>
#include <QCoreApplication>

#include <windows.h>
#else
#include <QSocketNotifier>
#include <cerrno>
#include <csignal>
#include <sys/socket.h>
#include <unistd.h>
#endif

#ifdef Q_OS_WIN

namespace {
StopSignals *instance = nullptr;
// Set once the manager has stopped: Windows ends the process when the handler
// of a close, log-off or shut-down event returns, so that handler waits for it.
HANDLE stopped = nullptr;
constexpr DWORD MaxStopWaitMs = 10000;

BOOL WINAPI OnConsoleControl(DWORD event)
{
    // Called on a thread of its own; the queued call reaches the event loop.
    QMetaObject::invokeMethod(instance, [] { emit instance->Received(); }, Qt::QueuedConnection);
    if (event != CTRL_C_EVENT && event != CTRL_BREAK_EVENT)
        WaitForSingleObject(stopped, MaxStopWaitMs);
    return TRUE;
}

// A headless manager has no window to close: the request reaches its main
// thread as a thread message, which the event loop shows to native filters.
class ThreadCloseFilter : public QAbstractNativeEventFilter
{
public:
    bool nativeEventFilter(const QByteArray &, void *message, long *) override
    {
        const MSG *msg = static_cast<const MSG *>(message);
        if (msg->hwnd || msg->message != WM_CLOSE)
            return false;
        emit instance->Received();
        return true;
    }
};
} // namespace

StopSignals::StopSignals(QObject *parent)
    : QObject(parent), closeFilter(new ThreadCloseFilter)
{
    instance = this;
    stopped = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    SetConsoleCtrlHandler(OnConsoleControl, TRUE);
    QCoreApplication::instance()->installNativeEventFilter(closeFilter.get());
}

StopSignals::~StopSignals()
{
    if (QCoreApplication::instance())
        QCoreApplication::instance()->removeNativeEventFilter(closeFilter.get());
    SetEvent(stopped);
    SetConsoleCtrlHandler(OnConsoleControl, FALSE);
    instance = nullptr;
}

#else

namespace {
// The handler may only do what is async-signal-safe: write one byte.
int pipeEnds[2] = {-1, -1};
constexpr int HandledSignals[] = {SIGTERM, SIGINT};

extern "C" void OnStopSignal(int)
{
    const int saved = errno;
    const char byte = 1;
    // A full socket already holds a request: losing this one loses nothing.
    [[maybe_unused]] const ssize_t written = ::write(pipeEnds[0], &byte, 1);
    errno = saved;
}

void Handle(void (*handler)(int))
{
    struct sigaction action = {};
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (const int signal : HandledSignals)
        ::sigaction(signal, &action, nullptr);
}
} // namespace

StopSignals::StopSignals(QObject *parent)
    : QObject(parent)
{
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, pipeEnds) != 0)
        return;
    notifier = new QSocketNotifier(pipeEnds[1], QSocketNotifier::Read, this);
    connect(notifier, &QSocketNotifier::activated, this, &StopSignals::Drain);
    Handle(OnStopSignal);
}

StopSignals::~StopSignals()
{
    Handle(SIG_DFL);
    delete notifier;
    for (int &end : pipeEnds) {
        if (end >= 0)
            ::close(end);
        end = -1;
    }
}

void StopSignals::Drain()
{
    char bytes[16];
    while (::read(pipeEnds[1], bytes, sizeof bytes) > 0) {
    }
    emit Received();
}

#endif
