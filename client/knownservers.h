#pragma once

#include <QString>
#include <QStringList>

class QUrl;

// The servers the `tarn` tool trusts: a text file with one "host:port
// FINGERPRINT" line per server. Comments ("#"), blank lines and lines it cannot
// read are kept as they are and otherwise ignored; the user may edit the file.
class KnownServers
{
public:
    // known_servers in the tarn folder of the user's configuration folder.
    static QString DefaultPath();
    // The key of a server URL: its host in lower case, IPv6 addresses in
    // brackets, then ":" and the port.
    static QString Key(const QUrl &url);

    explicit KnownServers(const QString &path = DefaultPath());

    const QString &Path() const { return path; }
    // Reads the file; a missing file knows no server. False, with a sentence
    // in *error, when it cannot be read or is too large to be one.
    bool Load(QString *error);
    // The fingerprint recorded for the server (upper case), empty when none.
    QString Find(const QUrl &url) const;
    // Records the fingerprint for the server in place of any earlier one and
    // writes the file whole or not at all; the other lines stay.
    bool Record(const QUrl &url, const QString &fingerprint, QString *error);

    // Some ten thousand servers; a larger file is not one this tool wrote.
    static constexpr qint64 MaxFileSize = 1024 * 1024;

private:
    // Index of the first well-formed line for key, or -1: the one that counts.
    int LineOf(const QString &key, QString *fingerprint = nullptr) const;

    QString path;
    QStringList lines;
};
