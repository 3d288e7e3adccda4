#include "tarnsrv.h"
#include "tlsserversocket.h"

#include <QWebSocket>

#include <utility>

using namespace Tarn;

// The server's answers to its clients' messages, and the bounds on what a
// client may leave unread.

void TarnSrv::RcvdMessage(QString msg)
{
    const QString name = MessageName(msg);
    if (name == MsgServerPing)
        ReplyPing();
    else if (name == MsgHeartBeat)
        MarkHeartBeat();
    else if (name == MsgGetActiveClients)
        ReplyActiveClients();
}

// False when the sender was dropped for not reading.
bool TarnSrv::ReplyToSender(const QString &text)
{
    return !senderSocket || SendTo(senderSocket, text);
}

// Every reply waits in the server until the client reads it, so a client that
// asks without reading would make the server hold without end: past its limit,
// its connection ends and UnsentOverrun drops the client. False when it was.
bool TarnSrv::SendTo(QWebSocket *socket, const QString &text)
{
    socket->sendTextMessage(text);
    return socket->state() == QAbstractSocket::ConnectedState;
}

// Room for two full active-clients replies, whatever the size of the list.
qint64 TarnSrv::UnsentLimit()
{
    return UnsentFloorBytes + 2 * qint64(ActiveClientsReply().size());
}

// A client that is not read from while its earlier answers wait cannot send
// its heartbeats: one whose connection still takes bytes is alive, one that
// takes nothing misses its beats and goes at the usual deadline.
bool TarnSrv::Draining(Client &client)
{
    if (!client.transport)
        return false;
    const qint64 sent = std::exchange(client.sentAtBeat, client.transport->Sent());
    return client.transport->Backlogged() && client.sentAtBeat != sent;
}

void TarnSrv::DropSlowReader(QWebSocket *socket, qint64 held, bool poolFull)
{
    // Detached first: the connection reports its end at once, and nothing
    // more from this socket is to be handled.
    disconnect(socket, nullptr, this, nullptr);
    const QString name = ClientName(socket);
    const bool known = RemoveClient(socket);
    socket->deleteLater();
    const QString why = poolFull ? QStringLiteral("the send pool all clients share was full")
                                 : QStringLiteral("past its own limit");
    emit Log(QStringLiteral("Client %1 did not read what the server sent and was disconnected "
                            "(%2 KiB waited, %3).")
                 .arg(name, QString::number((held + 1023) / 1024), why),
             LogLevel::Warning, false);
    if (known) {
        WindDownIfEmpty();
        emit ClientsChanged();
    }
}

void TarnSrv::ReplyPing()
{
    if (!ReplyToSender(MsgServerPong))
        return;
    Client *client = FindClient(senderSocket);
    if ((client ? client->pingLines : unknownPingLines).Spend())
        LogInfo(QStringLiteral("Received ping request from client ")
                + ClientName(senderSocket) + QStringLiteral(", replied."));
}

bool TarnSrv::LineBudget::Spend()
{
    if (written < RepeatedLinesPerPeriod) {
        ++written;
        return true;
    }
    ++suppressed;
    return false;
}

// Writes what a budget held back, and opens its next period.
void TarnSrv::LogPingSummary(const QString &name, LineBudget &budget)
{
    if (budget.suppressed > 0)
        LogInfo(QStringLiteral("Client %1: %2 more ping requests answered in the last %3 s.")
                    .arg(name, QString::number(budget.suppressed), QString::number(summaryTimer.interval() / 1000)));
    budget = LineBudget();
}

void TarnSrv::MarkHeartBeat()
{
    // A heartbeat can still arrive after its record was dropped; nothing to mark then.
    if (ClientRecord *rec = FindClient(senderSocket))
        rec->heartBeatSeen = true;
}

// Goes straight to the connection, which sends the one shared buffer as
// QWebSocket would have framed it, instead of a copy per request.
void TarnSrv::ReplyActiveClients()
{
    Client *client = FindClient(senderSocket);
    if (!client || !client->transport || senderSocket->state() != QAbstractSocket::ConnectedState)
        return;
    // The only reply that grows with the registry raises the sender's limit with it.
    client->transport->SetUnsentLimit(UnsentLimit());
    client->transport->SendText(ActiveClientsReply(), senderSocket->outgoingFrameSize());
}

// A burst of requests gets one reply built once, until the registry changes.
QByteArray TarnSrv::ActiveClientsReply()
{
    if (activeClientsReply.isNull()) {
        QString text = MsgActiveClients + QLatin1Char(',');
        const QList<ActiveClient> clients = GetActiveClients();
        for (const ActiveClient &client : clients)
            text += client.guestName + QLatin1Char(',') + UuidText(client.sessionUuid) + QLatin1Char(',');
        activeClientsReply = text.toUtf8();
    }
    return activeClientsReply;
}
