#pragma once

#include <QList>
#include <QStringList>
#include <QUrl>

namespace Tarn {

// The SHA-256 fingerprint each server presents in a bare TLS handshake, in the
// order of urls; empty for one that gave no TLS answer within timeoutMs. All
// are probed at once and nothing is sent after the handshake. The caller bounds
// the number of URLs.
QStringList ProbeFingerprints(const QList<QUrl> &urls, int timeoutMs);

} // namespace Tarn
