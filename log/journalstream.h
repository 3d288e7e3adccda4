#pragma once

namespace Journal {

// True when standard error is the stream that systemd's journal reads for this
// service: JOURNAL_STREAM ("device:inode") names the very file standard error
// is. A descriptor inherited from elsewhere, say a shell redirecting the
// service's output to a file, does not match, and false off Linux.
bool StderrIsJournal();

} // namespace Journal
