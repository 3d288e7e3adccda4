#pragma once

#include <QString>
#include <QStringList>
#include <QUuid>

class QUrl;
class QWebSocket;

// Vocabulary and identity shared by the session server and the client connector.
namespace Tarn {

constexpr int HeartBeatIntervalMs = 20000;
constexpr int MaxMissedBeats = 3;
// Longest guest name a record keeps; every active-clients reply repeats it.
constexpr int MaxGuestNameLength = 256;

inline const QString MsgServerPing = QStringLiteral("Server ping");
inline const QString MsgServerPong = QStringLiteral("Server pong");
inline const QString MsgHeartBeat = QStringLiteral("Heart Beat");
inline const QString MsgGetActiveClients = QStringLiteral("Get active clients");
inline const QString MsgActiveClients = QStringLiteral("Active clients");

// One heartbeat tick for a peer: a beat seen since the last tick clears the
// count of missed ticks, none adds one. False once the peer has missed more
// than MaxMissedBeats ticks in a row.
bool CountHeartBeat(bool &beatSeen, qint32 &missedBeats);

// Splits a frame into its fields; empty fields are kept, so "" is one empty field.
QStringList SplitMessage(const QString &msg);

// The first field, which names the message.
QString MessageName(const QString &msg);

// Braced lower-case form used on the wire.
QString UuidText(const QUuid &uuid);

// Longest server URL accepted, in encoded form; a real one is about 25 characters.
constexpr int MaxUrlLength = 256;

// A URL as a responder announces it, wss://HOST:PORT and nothing else: HOST an
// IP address or a host name, PORT 1-65535, at most MaxUrlLength characters.
// Discovered URLs come from anyone on the network, so both the detector and
// the tool check them with this before keeping or printing one.
bool IsServerUrl(const QUrl &url);

} // namespace Tarn

struct ClientRecord
{
    QUuid firstUuid;
    QUuid sessionUuid;
    QUuid thirdUuid;
    QString guestName;
    QWebSocket *socket = nullptr;
    bool heartBeatSeen = false;
    qint32 missedBeats = 0;

    // Reads the four comma-separated origin fields by position. Fields past the
    // fourth are ignored; missing ones keep their defaults. A longer guest name
    // is cut to MaxGuestNameLength characters.
    static ClientRecord FromOrigin(const QString &origin);
};

struct ActiveClient
{
    QString guestName;
    QUuid sessionUuid;

    bool operator==(const ActiveClient &other) const
    {
        return guestName == other.guestName && sessionUuid == other.sessionUuid;
    }
};

// Qt 5 hashes to uint, Qt 6 to size_t.
inline auto qHash(const ActiveClient &client, decltype(qHash(QString())) seed = 0)
{
    return qHash(client.guestName, seed) ^ qHash(client.sessionUuid, seed);
}

namespace Tarn {
// Reads the body of an "Active clients" reply: name and session UUID pairs,
// each field followed by ",". An unpaired last field is dropped.
QList<ActiveClient> ParseActiveClients(const QString &body);
} // namespace Tarn
