#pragma once

namespace Tarn {

// Descriptors the server keeps for itself, beyond one per client: standard
// streams, listening socket and its spare, log file and one being rotated,
// identity and settings files, discovery socket, event loop (epoll or pipe,
// wake-up), instance lock and shared memory, the window's display connection,
// and what Qt opens on its own. About 16 are used; twice that leaves room.
constexpr int ReservedDescriptors = 32;

// Raises the soft limit on open descriptors to the hard one: a shell's 1,024
// would cap the server far below what the system allows. Nothing in the
// programs uses select(), so descriptors past 1,023 are fine. Does nothing
// where there is no such limit for sockets (Windows).
void RaiseDescriptorLimit();

// How many clients the current limit leaves room for; -1 where there is no
// such limit.
int ClientRoom();

} // namespace Tarn
