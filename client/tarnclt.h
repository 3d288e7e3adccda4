#pragma once

#include "protocol.h"

#include <QEventLoop>
#include <QObject>
#include <QSslError>
#include <QTimer>
#include <QUrl>

class QSslConfiguration;
class QSslSocket;
class QWebSocket;

// Client side of the session protocol: one secure WebSocket connection with
// heartbeats and two blocking request/reply calls. The blocking calls spin the
// caller's event queue, so they must run on the thread that owns the object.
class TarnClt : public QObject
{
    Q_OBJECT

public:
    explicit TarnClt(QObject *parent = nullptr);
    ~TarnClt() override;

    bool Open(const QUrl &target, ClientRecord *rec);
    void Close();
    int Ping();
    int RequestActiveClients(QString &out);
    qint64 Send(const QString &text);

    static QString BuildOrigin(const ClientRecord &rec);

    // Pins the server: the connections Open makes from now on accept only a
    // certificate with this SHA-256 fingerprint (any letter case), checked in
    // the TLS handshake before anything is sent. Empty: any certificate.
    void SetExpectedFingerprint(const QString &fingerprint);
    // Fingerprint of the certificate the last handshake presented, empty when none did.
    QString PeerFingerprint() const { return peerFingerprint; }

    // Why the last Open failed or the connection was given up; empty when
    // the server simply went away.
    QString ErrorString() const { return error; }

    // Only tests shorten the heartbeat period; the product keeps HeartBeatIntervalMs.
    void SetHeartBeatInterval(int ms);

    // Wall-clock bound on a whole connection attempt: TCP, TLS and the upgrade.
    static constexpr int ConnectTimeoutMs = 3000;
    // A real upgrade reply is a few hundred bytes; a server sending more is
    // feeding the client's header parser.
    static constexpr qint64 MaxUpgradeReplyBytes = 16 * 1024;
    static constexpr int ReplyTimeoutMs = 1000;
    // Largest message taken from a server: an active-clients list of some
    // twenty thousand entries with the longest names.
    static constexpr quint64 MaxIncomingSize = 16 * 1024 * 1024;
    // The connector's own messages are tiny: this much unsent means the server
    // stopped reading, and the connection is given up.
    static constexpr qint64 MaxUnsentBytes = 1024 * 1024;
    // Received bytes waiting on the transport: one largest message and its framing.
    static constexpr qint64 MaxUnreadBytes = qint64(MaxIncomingSize) + 64 * 1024;

signals:
    void UnexpectedDisconnection();

private slots:
    void connected();
    void disconnected();
    void onSslErrors(const QList<QSslError> &errors);
    void RcvdMessage(const QString &msg);
    void TransportReadyRead();
    qint64 SendHeartBeat();

private:
    void WaitForReply();
    void WaitForConnection();
    void EndConnectAttempt();
    void LoseConnection();
    void GiveUp(const QString &reason);
    bool WithinBounds();
    QSslSocket *Transport() const;
    QSslConfiguration ClientTls(const QUrl &target) const;
    bool PeerTrusted();

    QEventLoop connectLoop;
    QUrl url;
    QUrl lastUrl;
    ClientRecord *record = nullptr;
    QWebSocket *socket = nullptr;
    bool isConnected = false;
    bool attemptEnded = false;
    qint64 upgradeBytes = 0;
    QString error;
    bool reportSslErrors = false;
    QString expectedFingerprint;
    QString peerFingerprint;
    // The last trusted session's ticket, and the server it is good for.
    QByteArray sessionTicket;
    QUrl ticketUrl;
    QString reply;
    QTimer heartbeatTimer;
    bool serverBeatSeen = false;
    qint32 missedBeats = 1;
    QString activeClients;
};
