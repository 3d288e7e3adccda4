// The Origin text of a WebSocket handshake, which the server reads into the
// client's identity before anything else is known about the peer.

#include "fuzzsupport.h"
#include "protocol.h"
#include "tarnclt.h"

using TarnFuzz::Require;

namespace {

bool SameIdentity(const ClientRecord &a, const ClientRecord &b)
{
    return a.firstUuid == b.firstUuid && a.sessionUuid == b.sessionUuid
           && a.thirdUuid == b.thirdUuid && a.guestName == b.guestName;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const ClientRecord rec = ClientRecord::FromOrigin(TarnFuzz::Utf8Text(data, size));
    Require(!rec.guestName.contains(QLatin1Char(',')), "a guest name ends at the first comma");
    Require(rec.guestName.size() <= Tarn::MaxGuestNameLength, "a guest name is kept to its limit");
    Require(rec.socket == nullptr && !rec.heartBeatSeen && rec.missedBeats == 0,
            "an origin sets identity fields only");
    // The origin a client builds from that identity reads back as the same identity.
    Require(SameIdentity(ClientRecord::FromOrigin(TarnClt::BuildOrigin(rec)), rec),
            "an identity survives a round trip through the origin");
    return 0;
}
