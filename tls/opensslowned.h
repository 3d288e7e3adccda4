#pragma once

#include <QByteArray>

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <memory>

// Ownership of libcrypto and libssl objects, freed by their own functions.
struct OpenSslFree
{
    void operator()(BIO *p) const { BIO_free_all(p); }
    void operator()(BIGNUM *p) const { BN_free(p); }
    void operator()(EVP_PKEY *p) const { EVP_PKEY_free(p); }
    void operator()(EVP_PKEY_CTX *p) const { EVP_PKEY_CTX_free(p); }
    void operator()(X509 *p) const { X509_free(p); }
    void operator()(X509_EXTENSION *p) const { X509_EXTENSION_free(p); }
    void operator()(SSL_CTX *p) const { SSL_CTX_free(p); }
};
template <typename T>
using Owned = std::unique_ptr<T, OpenSslFree>;

// Reads data in place: it must outlive the BIO.
inline Owned<BIO> ReadOnlyBio(const QByteArray &data)
{
    return Owned<BIO>(BIO_new_mem_buf(data.constData(), data.size()));
}
