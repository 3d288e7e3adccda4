#include "tarnclt.h"

#include "fingerprint.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDebug>
#include <QSslConfiguration>
#include <QSslSocket>
#include <QWebSocket>

using namespace Tarn;

namespace {

// What waits to be sent: the frames not yet encrypted, and the encrypted
// bytes in the TLS socket (when known) not yet taken by the system.
qint64 UnsentBytes(const QWebSocket *socket, const QSslSocket *transport)
{
    return socket->bytesToWrite() + (transport ? transport->encryptedBytesToWrite() : 0);
}

} // namespace

TarnClt::TarnClt(QObject *parent)
    : QObject(parent)
{
    connect(&heartbeatTimer, &QTimer::timeout, this, &TarnClt::SendHeartBeat);
    heartbeatTimer.setInterval(HeartBeatIntervalMs);
}

TarnClt::~TarnClt() = default;

void TarnClt::SetHeartBeatInterval(int ms)
{
    heartbeatTimer.setInterval(ms);
}

QString TarnClt::BuildOrigin(const ClientRecord &rec)
{
    return QStringList({UuidText(rec.firstUuid), UuidText(rec.sessionUuid),
                        UuidText(rec.thirdUuid), rec.guestName})
        .join(QLatin1Char(','));
}

void TarnClt::SetExpectedFingerprint(const QString &fingerprint)
{
    // A resumed session skips verification, and with it the pin's first check:
    // a ticket kept under another pin is not offered.
    if (fingerprint.toUpper() != expectedFingerprint)
        sessionTicket.clear();
    expectedFingerprint = fingerprint.toUpper();
}

bool TarnClt::Open(const QUrl &target, ClientRecord *rec)
{
    if (url != target)
        Close();
    if (socket)
        return true;

    socket = new QWebSocket(BuildOrigin(rec ? *rec : ClientRecord()),
                            QWebSocketProtocol::Version13, this);
    socket->setMaxAllowedIncomingFrameSize(MaxIncomingSize);
    socket->setMaxAllowedIncomingMessageSize(MaxIncomingSize);
    connect(socket, &QWebSocket::connected, this, &TarnClt::connected);
    connect(socket, &QWebSocket::disconnected, this, &TarnClt::disconnected);
    connect(socket, &QWebSocket::sslErrors, this, &TarnClt::onSslErrors);
    socket->setSslConfiguration(ClientTls(target));
    peerFingerprint.clear();
    error.clear();
    attemptEnded = false;
    upgradeBytes = 0;
    socket->open(target);
    // The web socket parses what arrives in a queued call, so this slot sees
    // each delivery before the parser takes it. A frame waits there whole, so
    // the buffer holds one largest message, and no more is read while it is full.
    if (QSslSocket *transport = Transport()) {
        transport->setReadBufferSize(MaxUnreadBytes);
        connect(transport, &QSslSocket::readyRead, this, &TarnClt::TransportReadyRead);
    }
    WaitForConnection();

    if (isConnected) {
        url = target;
        lastUrl = url;
        record = rec;
        return true;
    }
    if (error.isEmpty())
        error = socket->error() == QAbstractSocket::UnknownSocketError ? QString() : socket->errorString();
    socket->abort();
    Close();
    return false;
}

// One deadline over the whole attempt. A slot that decides the attempt ends
// the wait; so may an event loop nested in ours (a timer's blocking ping, say)
// quitting this one, which is why the loop is entered again until either.
void TarnClt::WaitForConnection()
{
    const QDeadlineTimer deadline(ConnectTimeoutMs, Qt::PreciseTimer);
    QTimer expiry;
    expiry.setSingleShot(true);
    expiry.setTimerType(Qt::PreciseTimer);
    connect(&expiry, &QTimer::timeout, &connectLoop, &QEventLoop::quit);
    while (!attemptEnded && !deadline.hasExpired()) {
        expiry.start(int(deadline.remainingTime()));
        connectLoop.exec();
    }
    if (!attemptEnded)
        error = QStringLiteral("no connection within %1 ms").arg(ConnectTimeoutMs);
}

// Sessions persist, so a reconnect to the same server after a blip offers the
// ticket of the last one and skips the certificate signature.
QSslConfiguration TarnClt::ClientTls(const QUrl &target) const
{
    QSslConfiguration config = QSslConfiguration::defaultConfiguration();
    config.setSslOption(QSsl::SslOptionDisableSessionPersistence, false);
    if (target == ticketUrl)
        config.setSessionTicket(sessionTicket);
    // No trusted authorities at all: every certificate then fails
    // verification and reaches onSslErrors, where the pin decides.
    if (!expectedFingerprint.isEmpty())
        config.setCaCertificates({});
    return config;
}

void TarnClt::Close()
{
    if (!socket)
        return;
    if (QSslSocket *transport = Transport())
        disconnect(transport, &QSslSocket::readyRead, this, &TarnClt::TransportReadyRead);
    disconnect(socket, &QWebSocket::connected, this, &TarnClt::connected);
    disconnect(socket, &QWebSocket::disconnected, this, &TarnClt::disconnected);
    disconnect(socket, &QWebSocket::sslErrors, this, &TarnClt::onSslErrors);
    socket->deleteLater();
    socket = nullptr;
    isConnected = false;
    url.clear();
    reportSslErrors = false;
}

void TarnClt::connected()
{
    // A certificate that verification trusted never went through onSslErrors.
    if (!PeerTrusted()) {
        socket->abort();
        EndConnectAttempt();
        return;
    }
    isConnected = true;
    reportSslErrors = true;
    // The server gives its ticket right after the handshake, before the upgrade answer.
    if (const QSslSocket *transport = Transport()) {
        sessionTicket = transport->sslConfiguration().sessionTicket();
        ticketUrl = socket->requestUrl();
    }
    connect(socket, &QWebSocket::textMessageReceived, this, &TarnClt::RcvdMessage);
    heartbeatTimer.start();
    serverBeatSeen = false;
    missedBeats = 0;
    EndConnectAttempt();
}

void TarnClt::EndConnectAttempt()
{
    attemptEnded = true;
    connectLoop.exit(0);
}

void TarnClt::disconnected()
{
    disconnect(socket, &QWebSocket::textMessageReceived, this, &TarnClt::RcvdMessage);
    // Only a completed connection that went away is unexpected; a failed attempt is not.
    if (!url.isEmpty())
        LoseConnection();
    else if (!attemptEnded)
        EndConnectAttempt(); // refused or dropped: no use waiting for the deadline
    isConnected = false;
}

void TarnClt::LoseConnection()
{
    heartbeatTimer.stop();
    QWebSocket *lost = socket;
    Close();
    // What it still holds goes now, not at its deferred deletion.
    if (lost)
        lost->abort();
    emit UnexpectedDisconnection();
}

void TarnClt::GiveUp(const QString &reason)
{
    error = reason;
    if (isConnected) {
        LoseConnection();
        return;
    }
    socket->abort();
    EndConnectAttempt();
}

// Before the upgrade, the reply's size; after it, the connection's bounds.
void TarnClt::TransportReadyRead()
{
    if (isConnected) {
        WithinBounds();
        return;
    }
    // Each delivery counts all that waits, a line the parser has not taken
    // yet again: an upper bound of what arrived.
    upgradeBytes += Transport()->bytesAvailable();
    if (upgradeBytes > MaxUpgradeReplyBytes)
        GiveUp(QStringLiteral("the upgrade reply exceeds %1 bytes").arg(MaxUpgradeReplyBytes));
}

// Checked on every delivery and every message sent: the automatic answers to
// pings pile up too when the server stops reading.
bool TarnClt::WithinBounds()
{
    const QSslSocket *transport = Transport();
    if (UnsentBytes(socket, transport) > MaxUnsentBytes)
        GiveUp(QStringLiteral("the server does not read: over %1 bytes unsent").arg(MaxUnsentBytes));
    else if (transport && transport->bytesAvailable() >= MaxUnreadBytes)
        GiveUp(QStringLiteral("the server's unread data reached %1 bytes").arg(MaxUnreadBytes));
    else
        return true;
    return false;
}

QSslSocket *TarnClt::Transport() const
{
    return socket->findChild<QSslSocket *>(QString(), Qt::FindDirectChildrenOnly);
}

// Notes the presented certificate; true when no pin is set or it matches.
bool TarnClt::PeerTrusted()
{
    const QSslSocket *transport = Transport();
    peerFingerprint = transport ? Fingerprint(transport->peerCertificate()) : QString();
    return expectedFingerprint.isEmpty() || peerFingerprint == expectedFingerprint;
}

void TarnClt::onSslErrors(const QList<QSslError> &errors)
{
    if (!socket)
        return;
    if (!PeerTrusted()) {
        // Errors left unignored abort the handshake: the upgrade request, with
        // the guest name and session, is never written.
        EndConnectAttempt();
        return;
    }
    if (reportSslErrors) {
        for (const QSslError &error : errors)
            qDebug() << error.errorString();
    }
    // Self-signed, or the pinned one: accept it whatever verification says.
    socket->ignoreSslErrors();
}

void TarnClt::RcvdMessage(const QString &msg)
{
    const QString name = MessageName(msg);
    if (name == MsgServerPong) {
        reply = MsgServerPong;
    } else if (name == MsgHeartBeat) {
        serverBeatSeen = true;
    } else if (name == MsgActiveClients) {
        const int comma = msg.indexOf(QLatin1Char(','));
        activeClients = comma < 0 ? msg : msg.mid(comma + 1);
        reply = MsgActiveClients;
    }
}

qint64 TarnClt::SendHeartBeat()
{
    if (!socket) {
        heartbeatTimer.stop();
        return 0;
    }
    if (!CountHeartBeat(serverBeatSeen, missedBeats)) {
        LoseConnection();
        return 0;
    }
    return Send(MsgHeartBeat);
}

// -1 when the connection was given up because the server does not read.
qint64 TarnClt::Send(const QString &text)
{
    reply.clear();
    const qint64 sent = socket->sendTextMessage(text);
    return WithinBounds() ? sent : -1;
}

void TarnClt::WaitForReply()
{
    // Sleeping in the event queue instead of spinning; the deadline's own
    // timeout is the event that ends the last wait. (A check of the elapsed
    // time instead could find a coarse timer fired early and wait for good.)
    QTimer deadline;
    deadline.setSingleShot(true);
    deadline.setTimerType(Qt::PreciseTimer);
    deadline.start(ReplyTimeoutMs);
    while (reply.isEmpty() && deadline.isActive())
        QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents);
}

int TarnClt::Ping()
{
    if (!socket)
        return -10;
    Send(MsgServerPing);
    WaitForReply();
    return reply == MsgServerPong ? 0 : -1;
}

int TarnClt::RequestActiveClients(QString &out)
{
    if (!socket)
        return -10;
    activeClients.clear();
    Send(MsgGetActiveClients);
    WaitForReply();
    out = activeClients;
    return 0;
}
