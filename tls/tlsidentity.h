#pragma once

#include <QSslCertificate>
#include <QSslKey>
#include <QString>

// The server's TLS key pair and certificate. Each installation makes its own on
// first start and keeps it in its state folder, readable by its owner only;
// no key is ever compiled into a program.
class TlsIdentity
{
public:
    // Loads the pair kept in folder, making one first when the folder holds
    // neither file. A null identity on failure, with a sentence in *error that
    // says why and names the file or folder. A key other users may read or
    // change gets its mode narrowed when this process owns it; *warning says
    // so, or that it could not be.
    static TlsIdentity LoadOrCreate(const QString &folder, QString *error, bool *created = nullptr,
                                    QString *warning = nullptr);
    // Makes a new pair in folder, replacing the one there.
    static TlsIdentity Renew(const QString &folder, QString *error);

    // $STATE_DIRECTORY under systemd, else the user's application data.
    static QString DefaultFolder();
    static QString KeyPath(const QString &folder);
    static QString CertificatePath(const QString &folder);

    bool isNull() const { return certificate.isNull() || key.isNull(); }
    QString Fingerprint() const;
    // A new certificate is valid this long; renewal is the operator's decision.
    static constexpr int ValidityDays = 825;

    QSslCertificate certificate;
    QSslKey key;
};
