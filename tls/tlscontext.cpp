#include "tlscontext.h"

#include "tlsidentity.h"

#include <openssl/pem.h>
#include <openssl/ssl.h>

#include <memory>

namespace {

// TLS 1.2 offers only ephemeral ECDHE with AEAD ciphers, so a recorded session
// stays secret if the key leaks later and no CBC padding oracle exists. The
// identity's key is ECDSA. TLS 1.3 keeps OpenSSL's suites, all of that kind.
const char Tls12Ciphers[] = "ECDHE-ECDSA-AES128-GCM-SHA256:ECDHE-ECDSA-AES256-GCM-SHA384:"
                            "ECDHE-ECDSA-CHACHA20-POLY1305";

template <typename T, void (*Free)(T *)>
struct Deleter
{
    void operator()(T *p) const { Free(p); }
};
using Bio = std::unique_ptr<BIO, Deleter<BIO, BIO_free_all>>;
using Key = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY, EVP_PKEY_free>>;
using Certificate = std::unique_ptr<X509, Deleter<X509, X509_free>>;
using Context = std::unique_ptr<SSL_CTX, Deleter<SSL_CTX, SSL_CTX_free>>;

// Reads pem in place: it must outlive the buffer.
Bio PemBuffer(const QByteArray &pem)
{
    return Bio(BIO_new_mem_buf(pem.constData(), pem.size()));
}

} // namespace

SSL_CTX *MakeServerContext(const TlsIdentity &identity)
{
    Context context(SSL_CTX_new(TLS_server_method()));
    const QByteArray keyPem = identity.key.toPem();
    const QByteArray certificatePem = identity.certificate.toPem();
    const Key key(PEM_read_bio_PrivateKey(PemBuffer(keyPem).get(), nullptr, nullptr, nullptr));
    const Certificate certificate(PEM_read_bio_X509(PemBuffer(certificatePem).get(), nullptr, nullptr, nullptr));
    if (!context || !key || !certificate
        || SSL_CTX_use_certificate(context.get(), certificate.get()) != 1
        || SSL_CTX_use_PrivateKey(context.get(), key.get()) != 1
        || SSL_CTX_check_private_key(context.get()) != 1
        || SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION) != 1
        || SSL_CTX_set_cipher_list(context.get(), Tls12Ciphers) != 1)
        return nullptr;
    SSL_CTX_set_options(context.get(), SSL_OP_NO_COMPRESSION | SSL_OP_NO_RENEGOTIATION
                                           | SSL_OP_CIPHER_SERVER_PREFERENCE);
    // A client back after a blip resumes with the one ticket its session
    // left it. Tickets are stateless, sealed with a key this context makes
    // and keeps for the listener's lifetime, so the server holds nothing per
    // ticket; no session cache.
    SSL_CTX_set_session_cache_mode(context.get(), SSL_SESS_CACHE_OFF);
    SSL_CTX_set_num_tickets(context.get(), 1);
    // An idle connection gives its read and write buffers back.
    SSL_CTX_set_mode(context.get(), SSL_MODE_RELEASE_BUFFERS);
    return context.release();
}
