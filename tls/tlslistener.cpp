#include "tlslistener.h"

#include "socketio.h"
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

TlsServerSocket *SocketOf(ConnectionBudget::Id id)
{
    return reinterpret_cast<TlsServerSocket *>(id);
}

ConnectionBudget::Id IdOf(TlsServerSocket *socket)
{
    return reinterpret_cast<ConnectionBudget::Id>(socket);
}

} // namespace

TlsListener::TlsListener(const TlsIdentity &identity, QObject *parent)
    : QTcpServer(parent), context(MakeServerContext(identity)), unsentPool(std::make_shared<UnsentPool>()),
      budget([](ConnectionBudget::Id id) { return SocketOf(id)->Progress(); })
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
    budget.Advance(IdOf(socket), ConnectionProgress::Session);
    // Counted until it ends; deleted without ending, when the server stops.
    const ConnectionBudget::Id id = IdOf(socket);
    connect(socket, &TlsServerSocket::Ended, this, [this, id] { budget.Remove(id); });
    connect(socket, &QObject::destroyed, this, [this, id] { budget.Remove(id); });
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
    const QHostAddress peer = SocketIo::Peer(descriptor).address;
    // Reset before it was accepted: no one to serve, and no group to charge
    // (a null address would count against ::1).
    if (peer.isNull()) {
        SocketIo::Close(descriptor);
        return;
    }
    const ConnectionBudget::Groups groups = ConnectionBudget::GroupsOf(peer);
    // Churn past the rate costs a system call or two, no objects.
    if (!budget.WithinRate(groups, clock.elapsed())) {
        ++drops.throttled;
        SocketIo::Close(descriptor);
        return;
    }
    auto *socket = new TlsServerSocket(context, descriptor, unsentPool, this);
    if (!Admit(socket, groups)) {
        // Closed before its first read: no TLS work, nobody else's room.
        socket->Abort();
        delete socket;
        return;
    }
    pendingOf.insert(socket, pending.insert(pending.end(), Pending{socket, clock.elapsed()}));
    Watch(socket);
}

// Counts the newcomer, or the reason it is refused, and closes whom the
// budget chose to make room.
bool TlsListener::Admit(TlsServerSocket *socket, const ConnectionBudget::Groups &groups)
{
    const ConnectionBudget::Outcome outcome = budget.Admit(IdOf(socket), groups);
    drops.displaced += int(outcome.displaced.size());
    drops.evicted += int(outcome.evicted.size());
    for (const ConnectionBudget::Id id : outcome.displaced)
        Drop(id);
    for (const ConnectionBudget::Id id : outcome.evicted)
        Drop(id);
    if (!outcome.admitted)
        ++drops.overShare;
    return outcome.admitted;
}

void TlsListener::Watch(TlsServerSocket *socket)
{
    connect(socket, &TlsServerSocket::Ready, this, [this, socket] {
        budget.Advance(IdOf(socket), ConnectionProgress::Ready);
        readyAt.insert(qMakePair(socket->peerAddress(), socket->peerPort()), socket);
        emit Ready(socket);
    });
    connect(socket, &TlsServerSocket::Ended, this, [this, socket] {
        Forget(socket);
        budget.Remove(IdOf(socket));
        socket->deleteLater();
        emit Released();
    });
}

// Unfinished or a session: its end takes it out of the books too, unless it
// had ended before.
void TlsListener::Drop(ConnectionBudget::Id id)
{
    TlsServerSocket *socket = SocketOf(id);
    socket->Abort();
    Forget(socket);
    budget.Remove(id);
}

void TlsListener::Forget(TlsServerSocket *socket)
{
    const auto it = pendingOf.constFind(socket);
    if (it == pendingOf.cend())
        return;
    readyAt.remove(qMakePair(socket->peerAddress(), socket->peerPort()));
    pending.erase(*it);
    pendingOf.erase(it);
}

void TlsListener::CloseLate()
{
    const qint64 now = clock.elapsed();
    while (!pending.empty() && pending.front().acceptedMs <= now - DeadlineMs) {
        ++drops.late;
        Drop(IdOf(pending.front().socket));
    }
    budget.ForgetQuietGroups(now);
}
