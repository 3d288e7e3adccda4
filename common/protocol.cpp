#include "protocol.h"

#include <QHostAddress>
#include <QUrl>

namespace {

// Dot-separated labels of ASCII letters, digits, '-' and '_', as resolvers accept them.
bool IsHostName(const QString &host)
{
    if (host.size() > 253)
        return false;
    const QStringList labels = host.split(QLatin1Char('.'));
    for (const QString &label : labels) {
        if (label.isEmpty() || label.size() > 63 || label.startsWith(QLatin1Char('-'))
            || label.endsWith(QLatin1Char('-')))
            return false;
        for (const QChar c : label) {
            const bool asciiAlnum = c.unicode() < 128 && c.isLetterOrNumber();
            if (!asciiAlnum && c != QLatin1Char('-') && c != QLatin1Char('_'))
                return false;
        }
    }
    return true;
}

} // namespace

namespace Tarn {

bool CountHeartBeat(bool &beatSeen, qint32 &missedBeats)
{
    if (beatSeen) {
        missedBeats = 0;
        beatSeen = false;
    } else {
        ++missedBeats;
    }
    return missedBeats <= MaxMissedBeats;
}

QStringList SplitMessage(const QString &msg)
{
    return msg.split(QLatin1Char(','), Qt::KeepEmptyParts, Qt::CaseSensitive);
}

QString MessageName(const QString &msg)
{
    const int comma = msg.indexOf(QLatin1Char(','));
    return comma < 0 ? msg : msg.left(comma);
}

QString UuidText(const QUuid &uuid)
{
    return uuid.toString(QUuid::WithBraces);
}

bool IsServerUrl(const QUrl &url)
{
    if (!url.isValid() || url.scheme() != QLatin1String("wss") || url.toEncoded().size() > MaxUrlLength)
        return false;
    // port() is -1 when absent; QUrl itself refuses ports above 65535. Even an
    // empty user, path, query or fragment ("@", "/", "?", "#") is refused.
    const QUrl::FormattingOptions extras =
        QUrl::RemoveUserInfo | QUrl::RemovePath | QUrl::RemoveQuery | QUrl::RemoveFragment;
    if (url.port() < 1 || url != url.adjusted(extras))
        return false;
    // The encoded host is ASCII even for international names.
    const QString host = url.host(QUrl::FullyEncoded);
    return !QHostAddress(host).isNull() || IsHostName(host);
}

QList<ActiveClient> ParseActiveClients(const QString &body)
{
    const QStringList fields = SplitMessage(body);
    QList<ActiveClient> clients;
    // The body ends with ",", which leaves one empty field after the last pair.
    for (int i = 0; i + 1 < fields.size(); i += 2)
        clients.append({fields.at(i), QUuid(fields.at(i + 1))});
    return clients;
}

} // namespace Tarn

ClientRecord ClientRecord::FromOrigin(const QString &origin)
{
    const QStringList fields = Tarn::SplitMessage(origin);
    ClientRecord rec;
    rec.firstUuid = QUuid(fields.value(0));
    rec.sessionUuid = QUuid(fields.value(1));
    rec.thirdUuid = QUuid(fields.value(2));
    rec.guestName = fields.value(3);
    rec.guestName.truncate(Tarn::MaxGuestNameLength);
    return rec;
}
