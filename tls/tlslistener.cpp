#include "tlslistener.h"

#include "tlscontext.h"
#include "tlsserversocket.h"

#include <openssl/ssl.h>

#ifdef Q_OS_UNIX
#include "acceptor.h"
#endif

namespace {

#ifndef Q_OS_UNIX
constexpr int AcceptRetryMs = 1000;
#endif
constexpr int DeadlineCheckMs = 1000;

} // namespace

TlsListener::TlsListener(const TlsIdentity &identity, QObject *parent)
    : QTcpServer(parent), context(MakeServerContext(identity)), unsentPool(std::make_shared<UnsentPool>())
{
#ifndef Q_OS_UNIX
    // Where Qt accepts, it stops for good when an accept fails, out of
    // memory for sockets say; a second later there may be some again.
    connect(this, &QTcpServer::acceptError, this,
            [this] { QTimer::singleShot(AcceptRetryMs, this, &QTcpServer::resumeAccepting); });
#endif
    clock.start();
    deadlineTimer.setInterval(DeadlineCheckMs);
    connect(&deadlineTimer, &QTimer::timeout, this, &TlsListener::CloseLate);
    deadlineTimer.start();
}

TlsListener::~TlsListener()
{
    // Each connection holds its own reference to the context.
    SSL_CTX_free(context);
}

bool TlsListener::Listen(const QHostAddress &address, quint16 port)
{
    if (!listen(address, port))
        return false;
#ifdef Q_OS_UNIX
    // Qt's notifier off first: one socket gets one read notifier.
    pauseAccepting();
    auto *own = new Acceptor(socketDescriptor());
    acceptor.reset(own);
    connect(own, &Acceptor::Accepted, this, &TlsListener::incomingConnection);
    connect(own, &Acceptor::Refused, this, [this] { ++drops.refused; });
#endif
    return true;
}

void TlsListener::Close()
{
    acceptor.reset();
    close();
}

TlsServerSocket *TlsListener::TakeOver(const QHostAddress &address, quint16 port)
{
    TlsServerSocket *socket = readyAt.value(qMakePair(address, port));
    if (!socket)
        return nullptr;
    Forget(socket);
    disconnect(socket, nullptr, this, nullptr);
    // Once the caller has connected to the session's signals.
    QMetaObject::invokeMethod(socket, &TlsServerSocket::StartSession, Qt::QueuedConnection);
    return socket;
}

TlsListener::Drops TlsListener::TakeDrops()
{
    const Drops taken = drops;
    drops = Drops();
    return taken;
}

void TlsListener::incomingConnection(qintptr descriptor)
{
    auto *socket = new TlsServerSocket(context, descriptor, unsentPool, this);
    const QHostAddress address = socket->peerAddress();
    MakeRoomFor(address);
    pendingOf.insert(socket, pending.insert(pending.end(), Pending{socket, clock.elapsed()}));
    ++pendingFrom[address];
    connect(socket, &TlsServerSocket::Ready, this, [this, socket] {
        readyAt.insert(qMakePair(socket->peerAddress(), socket->peerPort()), socket);
        emit Ready(socket);
    });
    connect(socket, &TlsServerSocket::Ended, this, [this, socket] {
        Forget(socket);
        socket->deleteLater();
        emit Released();
    });
}

// A flood from one address displaces its own oldest connections first, and
// only then anyone's.
void TlsListener::MakeRoomFor(const QHostAddress &address)
{
    if (pendingFrom.value(address) >= MaxPendingPerAddress) {
        for (const Pending &entry : pending) {
            if (entry.socket->peerAddress() == address) {
                ++drops.displaced;
                Drop(entry.socket);
                break;
            }
        }
    }
    if (int(pending.size()) >= MaxPending) {
        ++drops.displaced;
        Drop(pending.front().socket);
    }
}

void TlsListener::Drop(TlsServerSocket *socket)
{
    socket->Abort();
    Forget(socket); // already done by its end, unless it had ended before
}

void TlsListener::Forget(TlsServerSocket *socket)
{
    const auto it = pendingOf.constFind(socket);
    if (it == pendingOf.cend())
        return;
    const QHostAddress address = socket->peerAddress();
    if (--pendingFrom[address] <= 0)
        pendingFrom.remove(address);
    readyAt.remove(qMakePair(address, socket->peerPort()));
    pending.erase(*it);
    pendingOf.erase(it);
}

void TlsListener::CloseLate()
{
    const qint64 cutoff = clock.elapsed() - DeadlineMs;
    while (!pending.empty() && pending.front().acceptedMs <= cutoff) {
        ++drops.late;
        Drop(pending.front().socket);
    }
}
