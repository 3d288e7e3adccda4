#include "tlscontext.h"

#include "opensslowned.h"
#include "tlsidentity.h"

#include <openssl/pem.h>

namespace {

// TLS 1.2 offers only ephemeral ECDHE with AEAD ciphers, so a recorded session
// stays secret if the key leaks later and no CBC padding oracle exists. The
// identity's key is ECDSA. TLS 1.3 keeps OpenSSL's suites, all of that kind.
const char Tls12Ciphers[] = "ECDHE-ECDSA-AES128-GCM-SHA256:ECDHE-ECDSA-AES256-GCM-SHA384:"
                            "ECDHE-ECDSA-CHACHA20-POLY1305";

// The versions a ClientHello's supported_versions extension lists include TLS 1.3.
bool OffersTls13(const unsigned char *list, size_t size)
{
    if (size < 1 || size_t(list[0]) + 1 != size)
        return false;
    for (size_t i = 1; i + 1 < size; i += 2)
        if (list[i] == 0x03 && list[i + 1] == 0x04)
            return true;
    return false;
}

// A TLS 1.2 ticket carries the session's master secret, so whoever later read
// the ticket key could decrypt a recorded session; a TLS 1.3 resumption makes
// a fresh key exchange. Only clients that speak TLS 1.3 get a ticket.
int TicketsForTls13Only(SSL *ssl, int *, void *)
{
    const unsigned char *versions = nullptr;
    size_t size = 0;
    if (SSL_client_hello_get0_ext(ssl, TLSEXT_TYPE_supported_versions, &versions, &size) != 1
        || !OffersTls13(versions, size))
        SSL_set_options(ssl, SSL_OP_NO_TICKET);
    return SSL_CLIENT_HELLO_SUCCESS;
}

} // namespace

SSL_CTX *MakeServerContext(const TlsIdentity &identity)
{
    Owned<SSL_CTX> context(SSL_CTX_new(TLS_server_method()));
    const QByteArray keyPem = identity.key.toPem();
    const QByteArray certificatePem = identity.certificate.toPem();
    const Owned<EVP_PKEY> key(PEM_read_bio_PrivateKey(ReadOnlyBio(keyPem).get(), nullptr, nullptr, nullptr));
    const Owned<X509> certificate(PEM_read_bio_X509(ReadOnlyBio(certificatePem).get(), nullptr, nullptr, nullptr));
    if (!context || !key || !certificate
        || SSL_CTX_use_certificate(context.get(), certificate.get()) != 1
        || SSL_CTX_use_PrivateKey(context.get(), key.get()) != 1
        || SSL_CTX_check_private_key(context.get()) != 1
        || SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION) != 1
        || SSL_CTX_set_cipher_list(context.get(), Tls12Ciphers) != 1)
        return nullptr;
    SSL_CTX_set_options(context.get(), SSL_OP_NO_COMPRESSION | SSL_OP_NO_RENEGOTIATION
                                           | SSL_OP_CIPHER_SERVER_PREFERENCE);
    // A client back after a blip resumes with the one ticket its TLS 1.3
    // session left it. Tickets are stateless, sealed with a key this context makes
    // and keeps for the listener's lifetime, so the server holds nothing per
    // ticket; no session cache.
    SSL_CTX_set_session_cache_mode(context.get(), SSL_SESS_CACHE_OFF);
    SSL_CTX_set_num_tickets(context.get(), 1);
    SSL_CTX_set_client_hello_cb(context.get(), TicketsForTls13Only, nullptr);
    // An idle connection gives its read and write buffers back.
    SSL_CTX_set_mode(context.get(), SSL_MODE_RELEASE_BUFFERS);
    return context.release();
}
