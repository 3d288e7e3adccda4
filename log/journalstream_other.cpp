#include "journalstream.h"

// Only systemd has a journal reading standard error.
bool Journal::StderrIsJournal()
{
    return false;
}
