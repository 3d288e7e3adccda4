#include "fingerprint.h"

#include <QCryptographicHash>
#include <QRegularExpression>
#include <QSslCertificate>

namespace Tarn {

QString Fingerprint(const QSslCertificate &certificate)
{
    if (certificate.isNull())
        return QString();
    return QString::fromLatin1(certificate.digest(QCryptographicHash::Sha256).toHex(':').toUpper());
}

bool IsFingerprint(const QString &text)
{
    static const QRegularExpression form(QStringLiteral("\\A[0-9A-Fa-f]{2}(:[0-9A-Fa-f]{2}){31}\\z"));
    return form.match(text).hasMatch();
}

} // namespace Tarn
