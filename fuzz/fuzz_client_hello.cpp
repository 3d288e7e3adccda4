// The first bytes of every connection, judged before any TLS state exists
// for it: whatever a peer sends, the verdict is bounded and consistent.

#include "clienthello.h"
#include "fuzzsupport.h"

using TarnFuzz::Require;
using ClientHello::Verdict;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const char *bytes = reinterpret_cast<const char *>(data);
    // Bytes arrive in pieces: once a verdict is reached, more bytes never change it.
    Verdict settled = Verdict::NeedMore;
    qint64 settledAt = 0;
    for (qint64 n = 0; n <= qint64(size); ++n) {
        const Verdict verdict = ClientHello::Check(bytes, n);
        if (settled == Verdict::NeedMore) {
            settled = verdict;
            settledAt = n;
            continue;
        }
        Require(verdict == settled, "a verdict, once reached, stays");
    }
    if (settled == Verdict::Complete) {
        const qint64 record = (qint64(data[3]) << 8) | data[4];
        Require(record <= ClientHello::MaxBytes, "a complete hello is within the limit");
        Require(settledAt == ClientHello::RecordHeaderBytes + record, "complete exactly when the record is whole");
    }
    // Nothing is waited for beyond one record of the largest allowed size.
    Require(settled != Verdict::NeedMore || qint64(size) < ClientHello::RecordHeaderBytes + ClientHello::MaxBytes,
            "the wait for a hello is bounded");
    return 0;
}
