#include "tarnsrv.h"

#include "descriptorlimit.h"
#include "product.h"
#include "srvurldetect.h"
#include "tlslistener.h"
#include "tlsserversocket.h"

#include <QCoreApplication>
#include <QScopedValueRollback>
#include <QSet>
#include <QThread>
#include <QWebSocket>
#include <QWebSocketServer>

#ifdef Q_OS_UNIX
#include <sys/socket.h>
#endif
#ifdef __GLIBC__
#include <malloc.h>
#endif

using namespace Tarn;

namespace {

// How log lines name a peer that has no record.
const QString UnknownHost = QStringLiteral("Unknown host");

// QTcpServer listens with a backlog of 50. When more clients than that connect
// at once, the kernel drops their SYNs and they retry only after a second, so a
// burst of connections stalls while the server sits idle. Listening again on the
// same socket widens the queue to the system maximum.
void WidenListenBacklog(qintptr descriptor)
{
#ifdef Q_OS_UNIX
    ::listen(int(descriptor), SOMAXCONN);
#else
    Q_UNUSED(descriptor);
#endif
}

} // namespace

TarnSrv::TarnSrv()
{
    heartbeatTimer.setInterval(HeartBeatIntervalMs);
    connect(&heartbeatTimer, &QTimer::timeout, this, &TarnSrv::SendHeartBeat);
    memoryTrimTimer.setSingleShot(true);
    memoryTrimTimer.setInterval(MemoryTrimDelayMs);
    connect(&memoryTrimTimer, &QTimer::timeout, this, &TarnSrv::ReturnFreedMemory);
    summaryTimer.setInterval(LogSummaryPeriodMs);
    connect(&summaryTimer, &QTimer::timeout, this, &TarnSrv::SummarizeRepeatedLines);
}

TarnSrv::~TarnSrv()
{
    delete discovery;
}

void TarnSrv::SetHeartBeatInterval(int ms)
{
    heartbeatTimer.setInterval(ms);
}

void TarnSrv::SetLogSummaryPeriod(int ms)
{
    summaryTimer.setInterval(ms);
}

// Lets queued work (disconnections, deferred deletions) run before a blocking step.
void TarnSrv::Pause()
{
    QCoreApplication::processEvents();
    QThread::msleep(250);
}

void TarnSrv::LogInfo(const QString &text)
{
    emit Log(text, LogLevel::Info, false);
}

int TarnSrv::Start(int port)
{
    if (endpoint)
        return 0;
    if (busy)
        return -1;
    const QScopedValueRollback<bool> step(busy, true);

    LogInfo(QStringLiteral("Starting Tarn server."));
    Pause();
    if (identity.isNull() && !LoadIdentity(identityFolder.isEmpty() ? TlsIdentity::DefaultFolder() : identityFolder)) {
        emit Log(QStringLiteral("Failed to start Tarn server."), LogLevel::Error, false);
        return -1;
    }

    // TLS is run by the listener in front, with one context for every
    // connection; the endpoint sees decrypted streams.
    endpoint = new QWebSocketServer(Tarn::ManagerName(),
                                    QWebSocketServer::NonSecureMode, this);
    listener = new TlsListener(identity, endpoint);
    if (!listener->IsValid() || !listener->Listen(QHostAddress::Any, quint16(port))) {
        endpoint->deleteLater();
        endpoint = nullptr;
        listener = nullptr;
        emit Log(QStringLiteral("Failed to start Tarn server.")
                     + QStringLiteral(" An other server might already be running on port %1.").arg(port),
                 LogLevel::Error, false);
        return -1;
    }

    WidenListenBacklog(listener->socketDescriptor());
    serverUrl = ListeningUrl();
    summaryTimer.start();
    connect(listener, &TlsListener::Ready, endpoint, &QWebSocketServer::handleConnection);
    connect(listener, &TlsListener::Released, this, &TarnSrv::ScheduleMemoryTrim);
    connect(endpoint, &QWebSocketServer::newConnection, this, &TarnSrv::cltConnection);
    LogInfo(QStringLiteral("Tarn server started on port %1.\n").arg(listener->serverPort()));
    const int room = ClientRoom();
    listener->SetClientRoom(room);
    if (room >= 0)
        LogInfo(QStringLiteral("The descriptor limit leaves room for %1 clients.").arg(room));

    if (!discovery) {
        discovery = new SrvUrlDetect(nullptr);
        connect(discovery, &SrvUrlDetect::Log, this, &TarnSrv::Log);
        discovery->Advertise(serverUrl);
    }
    return 0;
}

void TarnSrv::Stop()
{
    if (!endpoint || busy)
        return;
    const QScopedValueRollback<bool> step(busy, true);

    DisconnectAll();
    // The port is free again before the endpoint's deferred deletion, which
    // a restart waits for.
    listener->Close();
    SummarizeRepeatedLines();
    summaryTimer.stop();
    connect(endpoint, &QObject::destroyed, this, &TarnSrv::SocketDestroyed);
    endpoint->deleteLater();
    endpoint = nullptr;
    listener = nullptr;

    LogInfo(QStringLiteral("Stopping Tarn server..."));
    Pause();
    LogInfo(QStringLiteral("Tarn server stopped."));

    delete discovery;
    discovery = nullptr;
}

bool TarnSrv::LoadIdentity(const QString &folder)
{
    identityFolder = folder;
    QString error;
    QString warning;
    bool created = false;
    const TlsIdentity loaded = TlsIdentity::LoadOrCreate(folder, &error, &created, &warning);
    if (loaded.isNull()) {
        emit Log(QStringLiteral("No TLS identity, so no secure server: %1").arg(error), LogLevel::Error, false);
        return false;
    }
    if (!warning.isEmpty())
        emit Log(warning, LogLevel::Warning, false);
    if (created)
        LogInfo(QStringLiteral("Made a new TLS identity in %1.").arg(folder));
    if (loaded.Fingerprint() != identity.Fingerprint())
        LogInfo(QStringLiteral("TLS certificate SHA-256 fingerprint: %1").arg(loaded.Fingerprint()));
    identity = loaded;
    return true;
}

QString TarnSrv::Fingerprint() const
{
    return identity.Fingerprint();
}

bool TarnSrv::IsRunning() const
{
    return endpoint != nullptr;
}

quint16 TarnSrv::ListeningPort() const
{
    return listener ? listener->serverPort() : 0;
}

QList<ActiveClient> TarnSrv::GetActiveClients() const
{
    // One entry per session UUID, in order of first appearance, under the
    // earliest record's name; the set keeps a large registry linear.
    QList<ActiveClient> clients;
    QSet<QUuid> seen;
    for (const ClientRecord &rec : registry) {
        if (seen.contains(rec.sessionUuid))
            continue;
        seen.insert(rec.sessionUuid);
        clients.append({rec.guestName, rec.sessionUuid});
    }
    return clients;
}

void TarnSrv::DisconnectAll()
{
    LogInfo(QStringLiteral("Disconnecting all clients..."));
    Pause();
    // No close frame: deleting the socket ends the connection.
    while (!registry.empty())
        EraseRecord(registry.begin());
    WindDownIfEmpty();
    emit ClientsChanged();
}

void TarnSrv::cltConnection()
{
    QWebSocket *socket = endpoint ? endpoint->nextPendingConnection() : nullptr;
    if (!socket)
        return;

    // The endpoint hands sockets over without a parent: owning them here means
    // none outlives the server, even when it goes with clients connected.
    socket->setParent(this);
    socket->setMaxAllowedIncomingFrameSize(MaxIncomingSize);
    socket->setMaxAllowedIncomingMessageSize(MaxIncomingSize);

    Client rec(ClientRecord::FromOrigin(socket->origin()));
    rec.socket = socket;
    // The connection goes with its WebSocket, which does not take it over itself.
    rec.transport = listener->TakeOver(socket->peerAddress(), socket->peerPort());
    if (!rec.transport) {
        socket->deleteLater();
        return;
    }
    rec.transport->setParent(socket);
    rec.transport->SetUnsentLimit(UnsentFloorBytes);
    connect(rec.transport, &TlsServerSocket::UnsentOverrun, this,
            [this, socket](qint64 held, bool poolFull) { DropSlowReader(socket, held, poolFull); });
    connect(socket, &QWebSocket::textMessageReceived, this, [this, socket](const QString &msg) {
        const QScopedValueRollback<QWebSocket *> handling(senderSocket, socket);
        RcvdMessage(msg);
    });
    connect(socket, &QWebSocket::disconnected, this, [this, socket] {
        const QScopedValueRollback<QWebSocket *> handling(senderSocket, socket);
        cltDisconnected();
    });

    recordOf.insert(socket, registry.insert(registry.end(), rec));
    activeClientsReply.clear();
    if (registry.size() == 1)
        heartbeatTimer.start();
    emit ClientsChanged();
}

void TarnSrv::cltDisconnected()
{
    QWebSocket *socket = senderSocket;
    if (!socket) {
        emit ClientsChanged();
        return;
    }
    // A socket already dropped by the heartbeat or DisconnectAll has no record;
    // scheduling its deletion again is harmless.
    if (!RemoveClient(socket))
        emit ClientsChanged();
    socket->deleteLater();
    WindDownIfEmpty();
    emit ClientsChanged();
}

qint64 TarnSrv::SendHeartBeat()
{
    // Nothing in this walk processes events, so erasing while iterating is safe.
    for (auto it = registry.begin(); it != registry.end();) {
        it->heartBeatSeen = it->heartBeatSeen || Draining(*it);
        if (CountHeartBeat(it->heartBeatSeen, it->missedBeats)) {
            QWebSocket *socket = it->socket;
            ++it; // the send may drop this client
            SendTo(socket, MsgHeartBeat);
            continue;
        }
        LogInfo(QStringLiteral("Client %1 is unreachable and was disconnected.")
                    .arg(it->guestName.toHtmlEscaped()));
        it = EraseRecord(it);
        emit ClientsChanged();
    }
    WindDownIfEmpty();
    return 0;
}

// With nobody connected there is nothing to beat for, and the heap still holds
// the peak of the sessions that ended: glibc keeps it unless asked, so a busy
// hour would stay resident.
void TarnSrv::WindDownIfEmpty()
{
    if (!registry.empty())
        return;
    heartbeatTimer.stop();
    ScheduleMemoryTrim();
}

// Once per burst of ended connections, whichever way they ended: restarting
// the timer on each would postpone the trim for as long as a flood lasts.
void TarnSrv::ScheduleMemoryTrim()
{
    if (!memoryTrimTimer.isActive())
        memoryTrimTimer.start();
}

// A connection costs tens of kilobytes of TLS state; once many are gone, hand
// the freed heap back to the system instead of keeping the peak.
void TarnSrv::ReturnFreedMemory()
{
#ifdef __GLIBC__
    malloc_trim(0);
#endif
}

// wss://<listening address>:<port>; discovery replaces the host for each requester.
QUrl TarnSrv::ListeningUrl() const
{
    QUrl url;
    url.setScheme(QStringLiteral("wss"));
    url.setHost(listener->serverAddress().toString());
    url.setPort(listener->serverPort());
    return url;
}

QString TarnSrv::ClientName(QWebSocket *socket) const
{
    const auto it = recordOf.constFind(socket);
    // Guest names come from the network; escape them before they reach the HTML log.
    return it == recordOf.cend() ? UnknownHost : (*it)->guestName.toHtmlEscaped();
}

TarnSrv::Client *TarnSrv::FindClient(QWebSocket *socket)
{
    const auto it = recordOf.constFind(socket);
    return it == recordOf.cend() ? nullptr : &**it;
}

bool TarnSrv::RemoveClient(QWebSocket *socket)
{
    const auto it = recordOf.constFind(socket);
    if (it == recordOf.cend())
        return false;
    ForgetRecord(*it);
    return true;
}

// Takes a record out and gives its socket up; the socket stays valid until the event loop runs.
TarnSrv::Registry::iterator TarnSrv::EraseRecord(Registry::iterator it)
{
    it->socket->deleteLater();
    return ForgetRecord(it);
}

// Every way out of the registry: the record's held-back ping lines are
// written and the cached active-clients reply is outdated.
TarnSrv::Registry::iterator TarnSrv::ForgetRecord(Registry::iterator it)
{
    recordOf.remove(it->socket);
    LogPingSummary(it->guestName.toHtmlEscaped(), it->pingLines);
    activeClientsReply.clear();
    ScheduleMemoryTrim();
    return registry.erase(it);
}

void TarnSrv::SummarizeRepeatedLines()
{
    for (Client &client : registry)
        LogPingSummary(client.guestName.toHtmlEscaped(), client.pingLines);
    LogPingSummary(UnknownHost, unknownPingLines);
    if (!listener)
        return;
    const TlsListener::Drops drops = listener->TakeDrops();
    if (drops.late > 0)
        LogInfo(QStringLiteral("%1 connections did not complete their handshake within %2 s and were closed.")
                    .arg(drops.late).arg(TlsListener::DeadlineMs / 1000));
    if (drops.displaced > 0)
        LogInfo(QStringLiteral("%1 unfinished handshakes were closed to make room for newer ones.")
                    .arg(drops.displaced));
    if (drops.refused > 0)
        emit Log(QStringLiteral("%1 connections were refused: the server is out of descriptors.").arg(drops.refused),
                 LogLevel::Warning, false);
    if (drops.throttled > 0)
        LogInfo(QStringLiteral("%1 connections were closed at once: their address connected faster than %2 a "
                               "second, or their network faster than %3.")
                    .arg(drops.throttled).arg(ConnectionBudget::HostRatePerSecond).arg(ConnectionBudget::RatePerSecond));
    if (drops.overShare > 0)
        LogInfo(QStringLiteral("%1 connections were refused: their address held its share of the server.")
                    .arg(drops.overShare));
    if (drops.evicted > 0)
        emit Log(QStringLiteral("%1 connections of the busiest address were closed to make room for other addresses.")
                     .arg(drops.evicted),
                 LogLevel::Warning, false);
}
