#include "streambio.h"

#include <openssl/bio.h>

#include <cstring>

namespace StreamBio {

namespace {

Ends &EndsOf(BIO *bio)
{
    return *static_cast<Ends *>(BIO_get_data(bio));
}

int Read(BIO *bio, char *data, size_t size, size_t *read)
{
    Ends &ends = EndsOf(bio);
    BIO_clear_retry_flags(bio);
    if (ends.inputSize == 0) {
        BIO_set_retry_read(bio);
        return 0;
    }
    const size_t taken = qMin(size, size_t(ends.inputSize));
    std::memcpy(data, ends.input, taken);
    ends.input += taken;
    ends.inputSize -= qint64(taken);
    *read = taken;
    return 1;
}

int Write(BIO *bio, const char *data, size_t size, size_t *written)
{
    BIO_clear_retry_flags(bio);
    EndsOf(bio).output->append(data, int(size));
    *written = size;
    return 1;
}

// OpenSSL flushes after each flight; everything else it may ask is unknown here.
long Control(BIO *, int command, long, void *)
{
    return command == BIO_CTRL_FLUSH ? 1 : 0;
}

const BIO_METHOD *Method()
{
    static BIO_METHOD *const method = [] {
        BIO_METHOD *m = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "tarn stream");
        if (m) {
            BIO_meth_set_read_ex(m, Read);
            BIO_meth_set_write_ex(m, Write);
            BIO_meth_set_ctrl(m, Control);
        }
        return m;
    }();
    return method;
}

} // namespace

BIO *New(Ends *ends)
{
    BIO *bio = Method() ? BIO_new(Method()) : nullptr;
    if (bio) {
        BIO_set_data(bio, ends);
        BIO_set_init(bio, 1);
    }
    return bio;
}

} // namespace StreamBio
