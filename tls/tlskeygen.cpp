#include "tlskeygen.h"

#include "opensslowned.h"

#include <QRegularExpression>

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rand.h>

namespace TlsKeyGen {
namespace {

Owned<EVP_PKEY> MakeKey()
{
    const Owned<EVP_PKEY_CTX> ctx(EVP_PKEY_CTX_new_id(EVP_PKEY_EC, nullptr));
    EVP_PKEY *key = nullptr;
    if (!ctx || EVP_PKEY_keygen_init(ctx.get()) <= 0
        || EVP_PKEY_CTX_set_ec_paramgen_curve_nid(ctx.get(), NID_X9_62_prime256v1) <= 0
        || EVP_PKEY_keygen(ctx.get(), &key) <= 0)
        return nullptr;
    return Owned<EVP_PKEY>(key);
}

bool AddExtension(X509 *certificate, int nid, const QByteArray &value)
{
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, certificate, certificate, nullptr, nullptr, 0);
    const Owned<X509_EXTENSION> extension(X509V3_EXT_conf_nid(nullptr, &ctx, nid, value.constData()));
    return extension && X509_add_ext(certificate, extension.get(), -1) == 1;
}

// 127 random bits: unique enough that no two certificates of a host share one.
bool SetRandomSerial(X509 *certificate)
{
    unsigned char bytes[16];
    if (RAND_bytes(bytes, sizeof bytes) != 1)
        return false;
    bytes[0] &= 0x7f;
    const Owned<BIGNUM> serial(BN_bin2bn(bytes, sizeof bytes, nullptr));
    return serial && BN_to_ASN1_INTEGER(serial.get(), X509_get_serialNumber(certificate));
}

bool SetNameAndValidity(X509 *certificate, const QByteArray &host, int validityDays)
{
    X509_NAME *name = X509_get_subject_name(certificate);
    const auto *cn = reinterpret_cast<const unsigned char *>(host.constData());
    // An hour back, so a client whose clock is a little behind accepts it at once.
    return X509_set_version(certificate, 2) == 1 && SetRandomSerial(certificate)
           && X509_gmtime_adj(X509_getm_notBefore(certificate), -3600)
           && X509_time_adj_ex(X509_getm_notAfter(certificate), validityDays, 0, nullptr)
           && X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8, cn, -1, -1, 0) == 1
           && X509_set_issuer_name(certificate, name) == 1;
}

bool AddLeafExtensions(X509 *certificate, const QByteArray &host)
{
    QByteArray names = "DNS:localhost";
    if (host != "localhost")
        names.prepend("DNS:" + host + ',');
    return AddExtension(certificate, NID_basic_constraints, "critical,CA:FALSE")
           && AddExtension(certificate, NID_key_usage, "critical,digitalSignature")
           && AddExtension(certificate, NID_ext_key_usage, "serverAuth")
           && AddExtension(certificate, NID_subject_key_identifier, "hash")
           && AddExtension(certificate, NID_subject_alt_name, names);
}

// The host name goes into the extension text, where a comma or colon would
// start another entry: anything but a plain DNS name falls back to localhost.
QByteArray DnsName(const QString &host)
{
    static const QRegularExpression plain(QStringLiteral("\\A[A-Za-z0-9]([A-Za-z0-9.-]{0,251}[A-Za-z0-9])?\\z"));
    return plain.match(host).hasMatch() ? host.toLatin1() : QByteArrayLiteral("localhost");
}

QByteArray Drain(BIO *bio)
{
    char *data = nullptr;
    const long size = BIO_get_mem_data(bio, &data);
    return QByteArray(data, int(size));
}

QByteArray KeyPem(EVP_PKEY *key)
{
    const Owned<BIO> bio(BIO_new(BIO_s_mem()));
    if (!bio || PEM_write_bio_PrivateKey(bio.get(), key, nullptr, nullptr, 0, nullptr, nullptr) != 1)
        return QByteArray();
    return Drain(bio.get());
}

QByteArray CertificatePem(X509 *certificate)
{
    const Owned<BIO> bio(BIO_new(BIO_s_mem()));
    if (!bio || PEM_write_bio_X509(bio.get(), certificate) != 1)
        return QByteArray();
    return Drain(bio.get());
}

// Without a callback libcrypto would ask for a passphrase on the terminal, and
// a service has none: an encrypted key is simply not readable.
int NoPassphrase(char *, int, int, void *)
{
    return 0;
}

// What fails leaves reports in the thread's error queue, where Qt's TLS code
// would later find them and take them for its own.
struct ClearErrorsOnExit
{
    ~ClearErrorsOnExit() { ERR_clear_error(); }
};

} // namespace

PemPair MakePair(const QString &host, int validityDays)
{
    const ClearErrorsOnExit clear;
    const QByteArray name = DnsName(host);
    const Owned<EVP_PKEY> key = MakeKey();
    const Owned<X509> certificate(X509_new());
    if (!key || !certificate || !SetNameAndValidity(certificate.get(), name, validityDays)
        || X509_set_pubkey(certificate.get(), key.get()) != 1 || !AddLeafExtensions(certificate.get(), name)
        || X509_sign(certificate.get(), key.get(), EVP_sha256()) <= 0)
        return {};
    PemPair pair{KeyPem(key.get()), CertificatePem(certificate.get())};
    if (pair.key.isEmpty() || pair.certificate.isEmpty())
        return {};
    return pair;
}

QString CheckPair(const PemPair &pair, const QString &keyPath, const QString &certificatePath,
                  QSsl::KeyAlgorithm *algorithm)
{
    const ClearErrorsOnExit clear;
    const Owned<BIO> keyBio = ReadOnlyBio(pair.key);
    const Owned<BIO> certificateBio = ReadOnlyBio(pair.certificate);
    const Owned<EVP_PKEY> key(PEM_read_bio_PrivateKey(keyBio.get(), nullptr, NoPassphrase, nullptr));
    const Owned<X509> certificate(PEM_read_bio_X509(certificateBio.get(), nullptr, nullptr, nullptr));
    if (!key)
        return QStringLiteral("%1 holds no readable private key (an encrypted one is not supported).").arg(keyPath);
    if (!certificate)
        return QStringLiteral("%1 holds no readable certificate.").arg(certificatePath);
    if (X509_check_private_key(certificate.get(), key.get()) != 1)
        return QStringLiteral("The key %1 does not belong to the certificate %2.").arg(keyPath, certificatePath);
    switch (EVP_PKEY_base_id(key.get())) {
    case EVP_PKEY_EC:
        *algorithm = QSsl::Ec;
        return QString();
    case EVP_PKEY_RSA:
        *algorithm = QSsl::Rsa;
        return QString();
    default:
        return QStringLiteral("%1 holds a kind of key the server cannot use; it takes ECDSA or RSA.").arg(keyPath);
    }
}

} // namespace TlsKeyGen
