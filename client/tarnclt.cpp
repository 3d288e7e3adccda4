#include "tarnclt.h"

#include "fingerprint.h"

#include <QCoreApplication>
#include <QDebug>
#include <QSslConfiguration>
#include <QSslSocket>
#include <QWebSocket>

using namespace Tarn;

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
    attemptEnded = false;
    socket->open(target);
    WaitForConnection();

    if (isConnected) {
        url = target;
        lastUrl = url;
        record = rec;
    }
    return isConnected;
}

// Up to 30 rounds of 100 ms; a slot that decides the attempt ends the wait.
void TarnClt::WaitForConnection()
{
    QTimer round;
    round.setSingleShot(true);
    connect(&round, &QTimer::timeout, &connectLoop, &QEventLoop::quit);
    for (int attempt = 0; attempt < ConnectAttempts; ++attempt) {
        round.start(ConnectAttemptMs);
        connectLoop.exec();
        // Not the round's timer: the slot may have run in an event loop nested
        // in ours (a timer's blocking ping, say) as that timer fired too.
        if (attemptEnded)
            break;
    }
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
    isConnected = false;
}

void TarnClt::LoseConnection()
{
    heartbeatTimer.stop();
    Close();
    emit UnexpectedDisconnection();
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
    if (UnsentBytes(socket, Transport()) <= MaxUnsentBytes)
        return sent;
    LoseConnection();
    return -1;
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
