#pragma once

#include <QByteArray>

typedef struct bio_st BIO;

// The BIO between OpenSSL and a connection: it reads the bytes lent to it for
// the call at hand and appends what OpenSSL writes to the connection's queue.
// A memory BIO would keep buffers of its own, as large as the largest flight
// they ever held, for as long as the connection lasts.
namespace StreamBio {

struct Ends
{
    // What OpenSSL may read now; empty means "wait for more".
    const char *input = nullptr;
    qint64 inputSize = 0;
    // Where what OpenSSL writes goes.
    QByteArray *output = nullptr;
};

// ends must outlive the BIO. Null if OpenSSL has no memory for it.
BIO *New(Ends *ends);

} // namespace StreamBio
