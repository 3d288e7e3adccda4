#include "knownservers.h"

#include "fingerprint.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSaveFile>
#include <QStandardPaths>
#include <QUrl>

namespace {

const QString Header = QStringLiteral(
    "# Servers the tarn tool trusts: host:port and the SHA-256 fingerprint of its certificate.");

bool SetError(QString *error, const QString &text)
{
    if (error)
        *error = text;
    return false;
}

} // namespace

QString KnownServers::DefaultPath()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation)
           + QStringLiteral("/tarn/known_servers");
}

QString KnownServers::Key(const QUrl &url)
{
    const QString host = url.host(QUrl::FullyEncoded).toLower();
    const QString shown = host.contains(QLatin1Char(':')) ? QLatin1Char('[') + host + QLatin1Char(']') : host;
    return shown + QLatin1Char(':') + QString::number(url.port());
}

KnownServers::KnownServers(const QString &path)
    : path(path)
{
}

bool KnownServers::Load(QString *error)
{
    lines.clear();
    const QFileInfo info(path);
    if (!info.exists())
        return true;
    // Not a FIFO or device: reading one could block or never end.
    if (!info.isFile())
        return SetError(error, QStringLiteral("%1 is not a regular file").arg(path));
    if (info.size() > MaxFileSize)
        return SetError(error, QStringLiteral("%1 is larger than %2 bytes").arg(path).arg(MaxFileSize));
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return SetError(error, QStringLiteral("cannot read %1: %2").arg(path, file.errorString()));
    // The size may have grown since it was checked.
    const QString text = QString::fromUtf8(file.read(MaxFileSize));
    lines = text.split(QLatin1Char('\n'));
    if (lines.last().isEmpty())
        lines.removeLast();
    for (QString &line : lines) {
        if (line.endsWith(QLatin1Char('\r')))
            line.chop(1);
    }
    return true;
}

int KnownServers::LineOf(const QString &key, QString *fingerprint) const
{
    static const QRegularExpression blanks(QStringLiteral("\\s+"));
    for (int i = 0; i < lines.size(); ++i) {
        const QStringList fields = lines.at(i).split(blanks, Qt::SkipEmptyParts);
        if (fields.size() != 2 || fields.first().startsWith(QLatin1Char('#')) || !Tarn::IsFingerprint(fields.last())
            || fields.first().compare(key, Qt::CaseInsensitive) != 0)
            continue;
        if (fingerprint)
            *fingerprint = fields.last().toUpper();
        return i;
    }
    return -1;
}

QString KnownServers::Find(const QUrl &url) const
{
    QString fingerprint;
    LineOf(Key(url), &fingerprint);
    return fingerprint;
}

bool KnownServers::Record(const QUrl &url, const QString &fingerprint, QString *error)
{
    const QString key = Key(url);
    const QString line = key + QLatin1Char(' ') + fingerprint.toUpper();
    const int at = LineOf(key);
    if (at < 0) {
        if (lines.isEmpty())
            lines << Header;
        lines << line;
    } else {
        lines[at] = line;
    }

    const QString folder = QFileInfo(path).absolutePath();
    if (!QDir().mkpath(folder))
        return SetError(error, QStringLiteral("cannot create the folder %1").arg(folder));
    QSaveFile file(path);
    const QByteArray bytes = (lines.join(QLatin1Char('\n')) + QLatin1Char('\n')).toUtf8();
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size() || !file.commit())
        return SetError(error, QStringLiteral("cannot write %1: %2").arg(path, file.errorString()));
    return true;
}
