#pragma once

#include <QtGlobal>

// The look at a connection's first bytes that comes before any TLS state is
// made for it: OpenSSL reserves as much as a hello announces as soon as it
// has read its headers, so a peer that announces much and sends nothing
// would hold that much per connection.
namespace ClientHello {

enum class Verdict {
    NeedMore,  // plausible so far: wait for the rest
    Complete,  // one whole, plausible ClientHello record is there
    Refused,   // not a TLS client, or a hello larger than any real one
};

// Real hellos are under 2 KiB; post-quantum key shares still fit well within this.
constexpr int MaxBytes = 16 * 1024;
constexpr int RecordHeaderBytes = 5;

// Judges the bytes received so far. A hello must come whole in the first
// record; Complete means the first RecordHeaderBytes + record length bytes hold it.
Verdict Check(const char *bytes, qint64 size);

} // namespace ClientHello
