#include "tlsserversocket.h"

#include <QHostAddress>
#include <QTimer>

#ifdef Q_OS_WIN
#include <winsock2.h>
#else
#include <sys/socket.h>
#endif

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <cstring>

namespace {

// A client that has not finished its TLS handshake by then is dropped.
constexpr int HandshakeDeadlineMs = 10000;
// One TLS record's worth of plaintext.
constexpr int ChunkBytes = 16 * 1024;
// Taken from the network at a time, and what may wait unsent before
// nothing more is read from a peer.
constexpr qint64 ReadBufferBytes = 4 * ChunkBytes;
constexpr qint64 MaxQueuedOutput = 4 * 1024 * 1024;

// Hands bytes to the system without waiting; how many it took, 0 when none.
qint64 SendNow(qintptr descriptor, const QByteArray &bytes)
{
#ifdef Q_OS_WIN
    const int sent = ::send(SOCKET(descriptor), bytes.constData(), bytes.size(), 0);
#else
    const ssize_t sent = ::send(int(descriptor), bytes.constData(), size_t(bytes.size()), MSG_NOSIGNAL | MSG_DONTWAIT);
#endif
    return sent > 0 ? qint64(sent) : 0;
}

bool WantsMore(int error)
{
    return error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE;
}

} // namespace

TlsServerSocket::TlsServerSocket(SSL_CTX *context, qintptr descriptor, QObject *parent)
    : QTcpSocket(parent), transport(new QTcpSocket(this)), ssl(SSL_new(context))
{
    incoming = BIO_new(BIO_s_mem());
    outgoing = BIO_new(BIO_s_mem());
    // An empty buffer means "wait for more", not the end of the stream.
    BIO_set_mem_eof_return(incoming, -1);
    SSL_set_bio(ssl, incoming, outgoing);
    SSL_set_accept_state(ssl);

    transport->setReadBufferSize(ReadBufferBytes);
    connect(transport, &QTcpSocket::readyRead, this, &TlsServerSocket::ReceiveRaw);
    connect(transport, &QTcpSocket::bytesWritten, this, [this] {
        if (readPaused)
            ReceiveRaw();
    });
    connect(transport, &QTcpSocket::disconnected, this, &TlsServerSocket::TransportDisconnected);
    QTimer::singleShot(HandshakeDeadlineMs, this, [this] {
        if (!encrypted)
            Fail();
    });
    if (!transport->setSocketDescriptor(descriptor)) {
        QTimer::singleShot(0, this, &TlsServerSocket::HandshakeFailed);
        return;
    }
    setPeerAddress(transport->peerAddress());
    setPeerPort(transport->peerPort());
    setLocalAddress(transport->localAddress());
    setLocalPort(transport->localPort());
}

TlsServerSocket::~TlsServerSocket()
{
    transport->disconnect(this);
    SSL_free(ssl);
}

qint64 TlsServerSocket::EncryptedBytesToWrite() const
{
    return transport->bytesToWrite();
}

void TlsServerSocket::Abort()
{
    unencrypted.clear();
    transport->abort();
}

qint64 TlsServerSocket::bytesAvailable() const
{
    return isOpen() ? QTcpSocket::bytesAvailable() + plaintext.size() : 0;
}

qint64 TlsServerSocket::bytesToWrite() const
{
    return unencrypted.size();
}

bool TlsServerSocket::canReadLine() const
{
    return plaintext.contains('\n') || QTcpSocket::canReadLine();
}

void TlsServerSocket::close()
{
    disconnectFromHost();
    plaintext.clear();
    QIODevice::close();
}

void TlsServerSocket::disconnectFromHost()
{
    if (encrypted) {
        EncryptPending();
        ERR_clear_error();
        SSL_shutdown(ssl); // close_notify
        SendPending();
    }
    transport->disconnectFromHost();
    // A peer that never reads would keep a closing connection for good.
    if (transport->state() != UnconnectedState)
        QTimer::singleShot(HandshakeDeadlineMs, transport, &QAbstractSocket::abort);
}

qint64 TlsServerSocket::readData(char *data, qint64 maxSize)
{
    const qint64 size = qMin(maxSize, qint64(plaintext.size()));
    if (size == 0)
        return state() == ConnectedState ? 0 : -1;
    std::memcpy(data, plaintext.constData(), size_t(size));
    if (size == plaintext.size())
        plaintext.clear(); // gives the memory back, which remove() keeps
    else
        plaintext.remove(0, int(size));
    return size;
}

// Writes are gathered until the event loop runs: a burst of small replies
// then goes out in a few full records instead of one record each.
qint64 TlsServerSocket::writeData(const char *data, qint64 size)
{
    if (!encrypted)
        return -1;
    if (unencrypted.isEmpty() && size > 0)
        QMetaObject::invokeMethod(this, &TlsServerSocket::EncryptPending, Qt::QueuedConnection);
    unencrypted.append(data, int(size));
    return size;
}

void TlsServerSocket::EncryptPending()
{
    if (!encrypted || unencrypted.isEmpty())
        return;
    // A memory buffer never pushes back, so everything is taken at once.
    ERR_clear_error();
    SSL_write(ssl, unencrypted.constData(), unencrypted.size());
    unencrypted.clear();
    SendPending();
}

void TlsServerSocket::ReceiveRaw()
{
    // A peer that leaves its answers unread is not read either: alerts and
    // key updates answered for it would otherwise queue here without bound.
    readPaused = transport->bytesToWrite() > MaxQueuedOutput;
    if (readPaused)
        return;
    const QByteArray raw = transport->readAll();
    // Once closed by its reader, the connection is only winding down.
    if (encrypted && !isOpen())
        return;
    if (!raw.isEmpty())
        BIO_write(incoming, raw.constData(), raw.size());
    if (encrypted)
        Decrypt();
    else
        ContinueHandshake();
}

void TlsServerSocket::ContinueHandshake()
{
    ERR_clear_error();
    const int result = SSL_do_handshake(ssl);
    SendPending();
    if (result == 1) {
        encrypted = true;
        setSocketState(ConnectedState);
        setOpenMode(QIODevice::ReadWrite);
        emit Encrypted();
        Decrypt(); // the first request may have come with the last handshake message
    } else if (!WantsMore(SSL_get_error(ssl, result))) {
        Fail();
    }
}

void TlsServerSocket::Decrypt()
{
    char chunk[ChunkBytes];
    int result;
    qint64 received = 0;
    ERR_clear_error();
    while ((result = SSL_read(ssl, chunk, sizeof chunk)) > 0) {
        plaintext.append(chunk, result);
        received += result;
    }
    const int error = SSL_get_error(ssl, result);
    SendPending(); // alerts, key updates
    if (received > 0)
        emit readyRead();
    if (error == SSL_ERROR_ZERO_RETURN)
        disconnectFromHost();
    else if (!WantsMore(error))
        Fail();
}

// Straight to the system while nothing waits in the socket's queue, and the
// rest queued in one piece: the queue keeps its 32 kB block once used, and
// it sends one piece per turn of the event loop, which is expensive with
// thousands of connections. Errors show on the socket's own next write.
void TlsServerSocket::SendPending()
{
    const int size = int(BIO_pending(outgoing));
    if (size <= 0)
        return;
    QByteArray bytes(size, Qt::Uninitialized);
    BIO_read(outgoing, bytes.data(), size);
    const qint64 sent = transport->bytesToWrite() == 0 ? SendNow(transport->socketDescriptor(), bytes) : 0;
    if (sent < size)
        transport->write(bytes.constData() + sent, size - sent);
}

void TlsServerSocket::Fail()
{
    transport->abort();
}

void TlsServerSocket::TransportDisconnected()
{
    const bool wasEncrypted = encrypted;
    encrypted = false;
    if (state() != UnconnectedState) {
        setSocketState(UnconnectedState);
        emit stateChanged(UnconnectedState);
    }
    if (wasEncrypted)
        emit disconnected();
    else
        emit HandshakeFailed();
}
