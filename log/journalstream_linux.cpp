#include "journalstream.h"

#include <QByteArrayList>
#include <QtGlobal>

#include <sys/stat.h>
#include <unistd.h>

namespace {
// Two 64-bit numbers and a colon; anything longer is not systemd's.
constexpr int MaxStreamLength = 41;
} // namespace

bool Journal::StderrIsJournal()
{
    const QByteArray stream = qgetenv("JOURNAL_STREAM");
    if (stream.isEmpty() || stream.size() > MaxStreamLength)
        return false;
    const QByteArrayList fields = stream.split(':');
    bool deviceOk = false;
    bool inodeOk = false;
    const qulonglong device = fields.value(0).toULongLong(&deviceOk);
    const qulonglong inode = fields.value(1).toULongLong(&inodeOk);
    struct stat status = {};
    return fields.size() == 2 && deviceOk && inodeOk && ::fstat(STDERR_FILENO, &status) == 0
        && qulonglong(status.st_dev) == device && qulonglong(status.st_ino) == inode;
}
