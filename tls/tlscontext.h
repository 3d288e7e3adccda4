#pragma once

typedef struct ssl_ctx_st SSL_CTX;
class TlsIdentity;

// The one OpenSSL context every server connection shares, with the
// server's TLS policy. Null when OpenSSL refuses the identity; free it with
// SSL_CTX_free.
SSL_CTX *MakeServerContext(const TlsIdentity &identity);
