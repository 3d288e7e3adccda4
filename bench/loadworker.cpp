#include "loadworker.h"

#include "protocol.h"

#include <QSslConfiguration>
#include <QSslSocket>
#include <QUuid>
#include <QWebSocket>

#include <algorithm>

using namespace Tarn;

namespace Bench {

namespace {

// A client tool's handshake identity: three UUIDs and a guest name, each
// connection in a session of its own.
QString Origin(int worker, size_t index)
{
    return QStringLiteral("%1,%2,%3,load-%4-%5")
        .arg(UuidText(QUuid::createUuid()), UuidText(QUuid::createUuid()), UuidText(QUuid::createUuid()))
        .arg(worker)
        .arg(index);
}

// The server's certificate is self-signed; skipping verification keeps the
// client's share of each handshake small. Sessions persist, so each
// connection keeps the ticket the server gives it for a later reconnect.
QSslConfiguration ClientTls()
{
    QSslConfiguration config = QSslConfiguration::defaultConfiguration();
    config.setPeerVerifyMode(QSslSocket::VerifyNone);
    config.setSslOption(QSsl::SslOptionDisableSessionPersistence, false);
    return config;
}

} // namespace

qint64 NowNs()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
}

LoadWorker::LoadWorker(int index, QSemaphore &doneSignal)
    : workerIndex(index), done(doneSignal), phaseTimer(this), heartbeatTimer(this)
{
    phaseTimer.setSingleShot(true);
    connect(&phaseTimer, &QTimer::timeout, this, &LoadWorker::FinishPhase);
    connect(&heartbeatTimer, &QTimer::timeout, this, &LoadWorker::SendHeartBeats);
}

LoadWorker::~LoadWorker() = default;

void LoadWorker::Post(std::function<void()> job)
{
    QMetaObject::invokeMethod(this, std::move(job), Qt::QueuedConnection);
}

void LoadWorker::Connect(const QUrl &url, int count, int inFlightLimit, int timeoutMs, bool resume)
{
    Post([=] {
        offerTickets = resume;
        phase = Phase::Connecting;
        target = url;
        connected = failed = 0;
        toOpen = count;
        pending = count;
        inFlight = 0;
        firstOpenNs = lastConnectedNs = NowNs();
        if (count == 0) {
            FinishPhase();
            return;
        }
        phaseTimer.start(timeoutMs);
        maxInFlight = inFlightLimit;
        OpenNext();
    });
}

void LoadWorker::OpenNext()
{
    static const QSslConfiguration tls = ClientTls();
    while (toOpen > 0 && inFlight < maxInFlight) {
        const size_t index = sockets.size();
        auto *socket = new QWebSocket(Origin(workerIndex, index), QWebSocketProtocol::VersionLatest, this);
        QSslConfiguration config = tls;
        if (offerTickets && index < tickets.size())
            config.setSessionTicket(tickets[index]);
        socket->setSslConfiguration(config);
        sockets.push_back(socket);
        sentAt.push_back(0);
        established.push_back(0);
        Watch(socket, index);
        --toOpen;
        ++inFlight;
        socket->open(target);
        KeepTickets(socket, index);
    }
}

// The connection's TLS socket exists once the WebSocket has started opening.
void LoadWorker::KeepTickets(QWebSocket *socket, size_t index)
{
    auto *transport = socket->findChild<QSslSocket *>(QString(), Qt::FindDirectChildrenOnly);
    if (!transport)
        return;
    if (tickets.size() <= index)
        tickets.resize(index + 1);
    connect(transport, &QSslSocket::newSessionTicketReceived, this,
            [this, transport, index] { tickets[index] = transport->sslConfiguration().sessionTicket(); });
}

// Follows one connection: its handshake, its loss and its messages.
void LoadWorker::Watch(QWebSocket *socket, size_t index)
{
    connect(socket, &QWebSocket::connected, this, [this, index] {
        established[index] = 1;
        OnConnected();
    });
    const auto lost = [this, index, socket] {
        if (established[index] == 1)
            ++drops;
        else if (established[index] == 0)
            OnFailed(socket);
        established[index] = 2;
    };
    connect(socket, &QWebSocket::disconnected, this, lost);
    connect(socket, QOverload<QAbstractSocket::SocketError>::of(&QWebSocket::error), this, lost);
    connect(socket, &QWebSocket::textMessageReceived, this,
            [this, index](const QString &msg) { OnMessage(index, msg); });
}

void LoadWorker::OnConnected()
{
    if (phase != Phase::Connecting)
        return;
    --inFlight;
    ++connected;
    lastConnectedNs = NowNs();
    if (--pending == 0)
        FinishPhase();
    else
        OpenNext();
}

void LoadWorker::OnFailed(QWebSocket *socket)
{
    socket->deleteLater();
    std::replace(sockets.begin(), sockets.end(), socket, static_cast<QWebSocket *>(nullptr));
    if (phase != Phase::Connecting)
        return;
    --inFlight;
    ++failed;
    if (--pending == 0)
        FinishPhase();
    else
        OpenNext();
}

void LoadWorker::Ping(int durationMs)
{
    Post([=] {
        phase = Phase::Pinging;
        roundTrips.clear();
        deadlineNs = NowNs() + qint64(durationMs) * 1000000;
        pending = 0;
        for (size_t i = 0; i < sockets.size(); ++i) {
            if (!sockets[i])
                continue;
            ++pending;
            sentAt[i] = NowNs();
            sockets[i]->sendTextMessage(MsgServerPing);
        }
        if (pending == 0)
            FinishPhase();
        else
            phaseTimer.start(durationMs + 10000);
    });
}

void LoadWorker::QueryActiveClients(int count)
{
    Post([=] {
        phase = Phase::Querying;
        roundTrips.clear();
        remainingQueries = count;
        const auto first = std::find_if(sockets.begin(), sockets.end(), [](QWebSocket *s) { return s; });
        if (first == sockets.end() || count == 0) {
            FinishPhase();
            return;
        }
        phaseTimer.start(60000);
        queryIndex = size_t(first - sockets.begin());
        sentAt[queryIndex] = NowNs();
        (*first)->sendTextMessage(MsgGetActiveClients);
    });
}

void LoadWorker::OnMessage(size_t index, const QString &msg)
{
    const QString name = MessageName(msg);
    if (name == MsgHeartBeat)
        ++serverBeats;
    else if (name == MsgServerPong && phase == Phase::Pinging)
        OnPong(index);
    else if (name == MsgActiveClients && phase == Phase::Querying)
        OnActiveClients(msg);
}

void LoadWorker::OnPong(size_t index)
{
    const qint64 now = NowNs();
    roundTrips.push_back(now - sentAt[index]);
    if (now < deadlineNs) {
        sentAt[index] = now;
        sockets[index]->sendTextMessage(MsgServerPing);
    } else if (--pending == 0) {
        FinishPhase();
    }
}

void LoadWorker::OnActiveClients(const QString &msg)
{
    roundTrips.push_back(NowNs() - sentAt[queryIndex]);
    // "Active clients," then a name and a session field per entry, each ending in ",".
    lastActiveEntries = (int(msg.count(QLatin1Char(','))) - 1) / 2;
    if (--remainingQueries == 0) {
        FinishPhase();
        return;
    }
    sentAt[queryIndex] = NowNs();
    sockets[queryIndex]->sendTextMessage(MsgGetActiveClients);
}

void LoadWorker::Heartbeat(int intervalMs)
{
    Post([=] {
        if (intervalMs > 0)
            heartbeatTimer.start(intervalMs);
        else
            heartbeatTimer.stop();
        done.release();
    });
}

void LoadWorker::SendHeartBeats()
{
    for (QWebSocket *socket : sockets)
        if (socket)
            socket->sendTextMessage(MsgHeartBeat);
}

void LoadWorker::CloseAll()
{
    Post([=] {
        for (QWebSocket *socket : sockets) {
            if (!socket)
                continue;
            socket->disconnect(this);
            socket->abort();
            socket->deleteLater();
        }
        sockets.clear();
        sentAt.clear();
        established.clear();
        FinishPhase();
    });
}

void LoadWorker::FinishPhase()
{
    if (phase == Phase::Connecting)
        failed += pending;
    phase = Phase::Idle;
    pending = 0;
    phaseTimer.stop();
    done.release();
}

} // namespace Bench
