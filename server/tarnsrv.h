#pragma once

#include "loglevel.h"
#include "protocol.h"
#include "tlsidentity.h"

#include <QHash>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QTimer>
#include <QUrl>

#include <list>

class QWebSocket;
class QWebSocketServer;
class SrvUrlDetect;
class TlsListener;
class TlsServerSocket;

// The secure WebSocket session server: registry of connected clients, pings,
// heartbeats and the active-clients list. Runs on the thread that owns it.
class TarnSrv : public QObject
{
    Q_OBJECT

public:
    TarnSrv();
    ~TarnSrv() override;

    // A Start or Stop called from inside another one, through the events it
    // processes, does nothing: the one in progress decides. Start returns -1 then.
    int Start(int port);
    void Stop();
    bool IsRunning() const;
    QList<ActiveClient> GetActiveClients() const;
    void DisconnectAll();

    // Loads the TLS identity kept in folder, or makes it there on first use, and
    // logs what it did and the fingerprint when that changed. Start loads it
    // when nothing has, from the last folder tried; it then stays for the run.
    bool LoadIdentity(const QString &folder = TlsIdentity::DefaultFolder());
    QString Fingerprint() const;

    // Port the endpoint listens on, 0 while stopped.
    quint16 ListeningPort() const;
    // Only tests shorten these periods; the product keeps HeartBeatIntervalMs
    // and LogSummaryPeriodMs.
    void SetHeartBeatInterval(int ms);
    void SetLogSummaryPeriod(int ms);

    // Upper bound for one incoming frame or message; the protocol's are tiny.
    static constexpr quint64 MaxIncomingSize = 64 * 1024;
    // Delay between the first of a burst of ended connections and returning
    // their memory, long enough for the deferred deletions to have run.
    static constexpr int MemoryTrimDelayMs = 1000;
    // A client may leave this much unread, plus two active-clients replies; one
    // request at a time never comes near it. Past it the client is dropped.
    // The reply is one buffer that every connection sending it shares, and a
    // client is not read from while more than its connection's share waits,
    // so one that never reads holds about that share and a reference; when the
    // connections' shared pool runs out, those that held the most for the
    // longest are dropped.
    static constexpr qint64 UnsentFloorBytes = 256 * 1024;
    // Per client and period, the first repeats of a log line are written as
    // they are; the rest are counted into one summary line.
    static constexpr int RepeatedLinesPerPeriod = 10;
    static constexpr int LogSummaryPeriodMs = 10000;

signals:
    void ClientsChanged();
    void Log(QString text, quint32 type, bool msgBox);
    void SocketDestroyed(QObject *socket);

private slots:
    void cltConnection();
    void cltDisconnected();
    void RcvdMessage(QString msg);
    qint64 SendHeartBeat();
    void ScheduleMemoryTrim();
    void ReturnFreedMemory();
    void SummarizeRepeatedLines();

private:
    // Lets the first repeats of a line through in each period and counts the rest.
    struct LineBudget
    {
        int written = 0;
        int suppressed = 0;
        bool Spend();
    };
    // A record with what only the server keeps about the connection.
    struct Client : ClientRecord
    {
        explicit Client(const ClientRecord &rec) : ClientRecord(rec) {}
        // The connection under the WebSocket, which holds what waits to be sent.
        QPointer<TlsServerSocket> transport;
        LineBudget pingLines;
        // What its connection had sent at the last heartbeat tick.
        qint64 sentAtBeat = 0;
    };
    using Registry = std::list<Client>;

    bool ReplyToSender(const QString &text);
    bool SendTo(QWebSocket *socket, const QString &text);
    qint64 UnsentLimit();
    void DropSlowReader(QWebSocket *socket, qint64 held, bool poolFull);
    static bool Draining(Client &client);
    QUrl ListeningUrl() const;
    QString ClientName(QWebSocket *socket) const;
    Client *FindClient(QWebSocket *socket);
    bool RemoveClient(QWebSocket *socket);
    Registry::iterator EraseRecord(Registry::iterator it);
    Registry::iterator ForgetRecord(Registry::iterator it);
    void ReplyPing();
    void MarkHeartBeat();
    void ReplyActiveClients();
    QByteArray ActiveClientsReply();
    void LogInfo(const QString &text);
    void LogPingSummary(const QString &name, LineBudget &budget);
    void Pause();
    void WindDownIfEmpty();

    QWebSocketServer *endpoint = nullptr;
    // The endpoint's child: it accepts connections and runs their TLS.
    TlsListener *listener = nullptr;
    TlsIdentity identity;
    QString identityFolder;
    // In order of acceptance; the index finds a socket's record without a walk.
    Registry registry;
    QHash<QWebSocket *, Registry::iterator> recordOf;
    QUrl serverUrl;
    SrvUrlDetect *discovery = nullptr;
    QTimer heartbeatTimer;
    QTimer memoryTrimTimer;
    QTimer summaryTimer;
    // Pings from sockets without a record share one budget.
    LineBudget unknownPingLines;
    // Built on the first request after the registry changed, in UTF-8 as it
    // goes out, and shared by every connection sending it; null until then.
    QByteArray activeClientsReply;
    // The client whose signal is being handled. QObject::sender() would find it
    // by walking every connection made to this object, two per client, which
    // made each message cost time in proportion to the number of clients.
    QWebSocket *senderSocket = nullptr;
    // A Start or Stop is under way.
    bool busy = false;
};
