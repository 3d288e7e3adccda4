#pragma once

#include <QByteArray>
#include <QSsl>
#include <QString>

// The libcrypto side of the server's TLS identity.
namespace TlsKeyGen {

struct PemPair
{
    QByteArray key;
    QByteArray certificate;
};

// A new ECDSA P-256 key and a self-signed leaf certificate for it: CA:FALSE,
// digital signatures only, server authentication only, named after host and
// localhost. Empty members when libcrypto fails.
PemPair MakePair(const QString &host, int validityDays);

// Checks that both parse and belong together; the key's algorithm goes to
// *algorithm. Returns an empty text, or what is wrong, naming the files.
QString CheckPair(const PemPair &pair, const QString &keyPath, const QString &certificatePath,
                  QSsl::KeyAlgorithm *algorithm);

} // namespace TlsKeyGen
