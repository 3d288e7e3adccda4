#include "protocol.h"

#include <QSslSocket>
#include <QWebSocket>

namespace Tarn {

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

qint64 UnsentBytes(const QWebSocket *socket, const QSslSocket *transport)
{
    return socket->bytesToWrite() + (transport ? transport->encryptedBytesToWrite() : 0);
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
