#pragma once

#include <QString>

class QSslCertificate;

namespace Tarn {

// A certificate's SHA-256 digest as upper-case hex pairs joined by colons, the
// form `openssl x509 -fingerprint -sha256` prints, so an operator can compare.
QString Fingerprint(const QSslCertificate &certificate);

// Whether text is a fingerprint in that form (any letter case).
bool IsFingerprint(const QString &text);

} // namespace Tarn
