#include "tlsidentity.h"

#include "datafolders.h"
#include "fingerprint.h"
#include "tlskeygen.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLockFile>
#include <QSaveFile>
#include <QSysInfo>

#ifdef Q_OS_UNIX
#include <sys/stat.h>
#include <unistd.h>
#endif

using TlsKeyGen::PemPair;

namespace {

// Far more than any key or certificate; a bigger file is not one.
constexpr qint64 MaxPemFileSize = 64 * 1024;
// Another process making the identity at the same moment is done well before.
constexpr int LockWaitMs = 10000;

bool SetError(QString *error, const QString &text)
{
    if (error)
        *error = text;
    return false;
}

bool EnsureFolder(const QString &folder, QString *error)
{
    if (QFileInfo(folder).isDir())
        return true;
    // Created for the owner alone: nobody else needs to list it.
    if (QDir().mkpath(folder)
        && QFile::setPermissions(folder, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner))
        return true;
    return SetError(error, QStringLiteral("Cannot create the folder %1 for the server's TLS identity.").arg(folder));
}

bool ReadPem(const QString &path, const QString &what, QByteArray *data, QString *error)
{
    QFile file(path);
    if (QFileInfo(path).isDir() || !file.open(QIODevice::ReadOnly))
        return SetError(error, QStringLiteral("Cannot read the TLS %1 %2: %3.")
                                   .arg(what, path, QFileInfo(path).isDir() ? QStringLiteral("it is a folder")
                                                                           : file.errorString()));
    if (file.size() > MaxPemFileSize)
        return SetError(error, QStringLiteral("The TLS %1 %2 is too large to be one.").arg(what, path));
    *data = file.read(MaxPemFileSize);
    return true;
}

// Written whole or not at all, readable by the owner alone from the first byte.
bool WritePem(const QString &path, const QByteArray &data, QString *error)
{
    QSaveFile file(path);
    if (file.open(QIODevice::WriteOnly) && file.setPermissions(QFile::ReadOwner | QFile::WriteOwner)
        && file.write(data) == data.size() && file.commit())
        return true;
    return SetError(error, QStringLiteral("Cannot write %1: %2.").arg(path, file.errorString()));
}

#ifdef Q_OS_UNIX
// A key that others can read is no secret from them. Only its owner may
// change the mode; for another user's key this can only report it.
QString KeyExposure(const QString &keyPath)
{
    const QByteArray path = QFile::encodeName(keyPath);
    struct stat info = {};
    if (::stat(path.constData(), &info) != 0 || (info.st_mode & 077) == 0)
        return QString();
    const QString mode = QStringLiteral("%1").arg(info.st_mode & 0777, 4, 8, QLatin1Char('0'));
    if (info.st_uid == ::geteuid() && ::chmod(path.constData(), 0600) == 0)
        return QStringLiteral("The TLS key %1 was open to other users (mode %2); it is now readable by its owner alone (0600).")
            .arg(keyPath, mode);
    return QStringLiteral("The TLS key %1 is open to other users (mode %2) and this program cannot change that; "
                          "make it readable by its owner alone (chmod 600).")
        .arg(keyPath, mode);
}
#else
// Windows guards the file with the folder's access list, not a mode.
QString KeyExposure(const QString &)
{
    return QString();
}
#endif

TlsIdentity FromPem(const PemPair &pair, QSsl::KeyAlgorithm algorithm)
{
    TlsIdentity identity;
    identity.certificate = QSslCertificate(pair.certificate, QSsl::Pem);
    identity.key = QSslKey(pair.key, algorithm, QSsl::Pem, QSsl::PrivateKey);
    return identity;
}

TlsIdentity Read(const QString &folder, QString *error)
{
    const QString keyPath = TlsIdentity::KeyPath(folder);
    const QString certificatePath = TlsIdentity::CertificatePath(folder);
    PemPair pair;
    if (!ReadPem(keyPath, QStringLiteral("key"), &pair.key, error)
        || !ReadPem(certificatePath, QStringLiteral("certificate"), &pair.certificate, error))
        return TlsIdentity();
    QSsl::KeyAlgorithm algorithm = QSsl::Opaque;
    const QString problem = TlsKeyGen::CheckPair(pair, keyPath, certificatePath, &algorithm);
    if (!problem.isEmpty()) {
        SetError(error, problem);
        return TlsIdentity();
    }
    TlsIdentity identity = FromPem(pair, algorithm);
    if (identity.isNull())
        SetError(error, QStringLiteral("The TLS key %1 or certificate %2 cannot be used.").arg(keyPath, certificatePath));
    return identity;
}

TlsIdentity Make(const QString &folder, QString *error)
{
    const PemPair pair = TlsKeyGen::MakePair(QSysInfo::machineHostName(), TlsIdentity::ValidityDays);
    if (pair.key.isEmpty()) {
        SetError(error, QStringLiteral("Cannot make a TLS key pair: the crypto library failed."));
        return TlsIdentity();
    }
    if (!WritePem(TlsIdentity::KeyPath(folder), pair.key, error)
        || !WritePem(TlsIdentity::CertificatePath(folder), pair.certificate, error))
        return TlsIdentity();
    return FromPem(pair, QSsl::Ec);
}

// Two programs starting together must not make two pairs and keep one half of each.
bool Lock(QLockFile &lock, const QString &folder, QString *error)
{
    if (lock.tryLock(LockWaitMs))
        return true;
    return SetError(error, QStringLiteral("Cannot lock the TLS identity in %1.").arg(folder));
}

QString LockPath(const QString &folder)
{
    return QDir(folder).filePath(QStringLiteral("identity.lock"));
}

bool Exists(const QString &path)
{
    return QFileInfo(path).exists() || QFileInfo(path).isSymLink();
}

} // namespace

TlsIdentity TlsIdentity::LoadOrCreate(const QString &folder, QString *error, bool *created, QString *warning)
{
    if (created)
        *created = false;
    if (!EnsureFolder(folder, error))
        return TlsIdentity();
    QLockFile lock(LockPath(folder));
    if (!Lock(lock, folder, error))
        return TlsIdentity();
    const bool hasKey = Exists(KeyPath(folder));
    const bool hasCertificate = Exists(CertificatePath(folder));
    if (hasKey || hasCertificate) {
        // Half a pair is a damaged identity, not a missing one: making a new key
        // would quietly change what every client has pinned.
        if (hasKey != hasCertificate) {
            SetError(error, QStringLiteral("%1 is missing. Restore it, or make a new identity with TarnSrv --new-identity.")
                                .arg(hasKey ? CertificatePath(folder) : KeyPath(folder)));
            return TlsIdentity();
        }
        TlsIdentity identity = Read(folder, error);
        const QString exposure = identity.isNull() ? QString() : KeyExposure(KeyPath(folder));
        if (warning)
            *warning = exposure;
        return identity;
    }
    TlsIdentity identity = Make(folder, error);
    if (created)
        *created = !identity.isNull();
    return identity;
}

TlsIdentity TlsIdentity::Renew(const QString &folder, QString *error)
{
    if (!EnsureFolder(folder, error))
        return TlsIdentity();
    QLockFile lock(LockPath(folder));
    if (!Lock(lock, folder, error))
        return TlsIdentity();
    return Make(folder, error);
}

QString TlsIdentity::DefaultFolder()
{
    const QString state = Tarn::UnitDirectory("STATE_DIRECTORY");
    return state.isEmpty() ? Tarn::UserDataFolder() : state;
}

QString TlsIdentity::KeyPath(const QString &folder)
{
    return QDir(folder).filePath(QStringLiteral("identity.key"));
}

QString TlsIdentity::CertificatePath(const QString &folder)
{
    return QDir(folder).filePath(QStringLiteral("identity.crt"));
}

QString TlsIdentity::Fingerprint() const
{
    return Tarn::Fingerprint(certificate);
}
