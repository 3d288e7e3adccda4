#include "programguard.h"

#include <QFile>

#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

// The account is only recorded off Windows (processes run as the caller), so
// it grants nothing here.
QString openToOthers(const QString &path, const QString &)
{
    struct stat info;
    if (::stat(QFile::encodeName(path).constData(), &info) != 0)
        return QStringLiteral("cannot be examined: %1").arg(QString::fromLocal8Bit(strerror(errno)));
    if (info.st_uid != 0 && info.st_uid != ::getuid())
        return QStringLiteral("owned by user %1").arg(info.st_uid);
    if (info.st_mode & S_IWGRP)
        return QStringLiteral("writable by its group");
    if (info.st_mode & S_IWOTH)
        return QStringLiteral("writable by every user");
    return QString();
}
