#include "acceptor.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

int OpenSpare()
{
    return ::open("/dev/null", O_RDONLY | O_CLOEXEC);
}

int AcceptOne(int listening)
{
    return ::accept4(listening, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
}

// Errors that end one connection in the queue, not the listener: the next
// one may be fine.
bool ConnectionLost(int error)
{
    switch (error) {
    case EINTR:
    case ECONNABORTED:
    case EPROTO:
    case ENOPROTOOPT:
    case ENETDOWN:
    case ENETUNREACH:
    case EHOSTDOWN:
    case EHOSTUNREACH:
        return true;
    default:
        return false;
    }
}

} // namespace

Acceptor::Acceptor(qintptr listening)
    : listening(int(listening)), spare(OpenSpare()), notifier(listening, QSocketNotifier::Read)
{
    connect(&notifier, &QSocketNotifier::activated, this, &Acceptor::AcceptWaiting);
    retryTimer.setSingleShot(true);
    retryTimer.setInterval(RetryMs);
    connect(&retryTimer, &QTimer::timeout, this, &Acceptor::Resume);
}

Acceptor::~Acceptor()
{
    if (spare >= 0)
        ::close(spare);
}

void Acceptor::AcceptWaiting()
{
    for (int round = 0; round < MaxPerWake; ++round) {
        const int descriptor = AcceptOne(listening);
        if (descriptor >= 0) {
            emit Accepted(descriptor);
            continue;
        }
        const int error = errno;
        if (error == EAGAIN || error == EWOULDBLOCK)
            return;
        if (ConnectionLost(error))
            continue;
        if ((error == EMFILE || error == ENFILE) && RefuseOne())
            continue;
        // Anything else (no memory for the socket, say) would fail again at once.
        Pause();
        return;
    }
}

// False when the refusal could not be made, or the spare not taken back.
bool Acceptor::RefuseOne()
{
    if (spare < 0)
        return false;
    ::close(spare);
    const int descriptor = AcceptOne(listening);
    if (descriptor >= 0) {
        ::close(descriptor);
        emit Refused();
    }
    spare = OpenSpare();
    return descriptor >= 0 && spare >= 0;
}

void Acceptor::Pause()
{
    notifier.setEnabled(false);
    retryTimer.start();
}

void Acceptor::Resume()
{
    if (spare < 0)
        spare = OpenSpare();
    notifier.setEnabled(true);
}
