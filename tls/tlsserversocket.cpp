#include "tlsserversocket.h"

#include "clienthello.h"
#include "socketio.h"

#include <QEvent>
#include <QSocketNotifier>
#include <QTimer>

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <cstring>
#include <utility>

namespace {

// One TLS record's worth; a wake-up reads at most ReadsPerWake of them, so
// one busy peer cannot keep the others waiting.
constexpr int ChunkBytes = 16 * 1024;
constexpr int ReadsPerWake = 4;
// Reading stops while this much encrypted output waits for a peer that does
// not read (alerts and key updates are answered without the application), or
// while this much decrypted input waits for the application.
constexpr qint64 MaxQueuedOutput = 256 * 1024;
constexpr qint64 MaxUnreadPlaintext = 256 * 1024;
// A closing connection whose peer does not take its last bytes is dropped then.
constexpr int CloseDeadlineMs = 10000;

bool WantsMore(int error)
{
    return error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE;
}

// Calls its socket straight from the event: a connection to activated()
// would cost every socket a connection and a table of its receivers.
class DirectNotifier : public QSocketNotifier
{
public:
    using Handler = void (TlsServerSocket::*)();

    DirectNotifier(qintptr descriptor, Type type, TlsServerSocket *socket, Handler handler)
        : QSocketNotifier(descriptor, type, socket), handler(handler)
    {
    }

protected:
    bool event(QEvent *event) override
    {
        if (event->type() != QEvent::SockAct && event->type() != QEvent::SockClose)
            return QSocketNotifier::event(event);
        (static_cast<TlsServerSocket *>(parent())->*handler)();
        return true;
    }

private:
    Handler handler;
};

} // namespace

TlsServerSocket::TlsServerSocket(SSL_CTX *context, qintptr descriptor, std::shared_ptr<UnsentPool> pool,
                                 QObject *parent)
    : QTcpSocket(parent), context(context), descriptor(descriptor),
      readNotifier(new DirectNotifier(descriptor, QSocketNotifier::Read, this, &TlsServerSocket::ReadFromPeer)),
      pool(std::move(pool))
{
    const SocketIo::Endpoint peer = SocketIo::Peer(descriptor);
    const SocketIo::Endpoint local = SocketIo::Local(descriptor);
    setPeerAddress(peer.address);
    setPeerPort(peer.port);
    setLocalAddress(local.address);
    setLocalPort(local.port);
    if (!SocketIo::MakeNonBlocking(descriptor))
        QMetaObject::invokeMethod(this, &TlsServerSocket::Abort, Qt::QueuedConnection);
}

TlsServerSocket::~TlsServerSocket()
{
    if (descriptor >= 0) {
        readNotifier->setEnabled(false);
        if (writeNotifier)
            writeNotifier->setEnabled(false);
        SocketIo::Close(descriptor);
    }
    SSL_free(ssl);
    queue.Clear();
    pool->Charge(-pooled);
    pool->SetHolding(this, false);
    // The base destructor would otherwise close an open socket through its own code.
    setSocketState(UnconnectedState);
}

ConnectionProgress TlsServerSocket::Progress() const
{
    if (started)
        return ConnectionProgress::Session;
    if (ready)
        return ConnectionProgress::Ready;
    if (secure)
        return ConnectionProgress::Secure;
    return ssl ? ConnectionProgress::HelloReceived : ConnectionProgress::Connected;
}

void TlsServerSocket::Abort()
{
    Finish();
}

// Until now the WebSocket layer saw the request head alone: a second
// readyRead before the upgrade would run the upgrade a second time.
void TlsServerSocket::StartSession()
{
    started = true;
    // The handshake's peek at the request head went through QIODevice's
    // buffer even so, which kept its 16 kB block; opening afresh drops it.
    // What it holds past the head is the start of the first frames.
    if (QIODevice::bytesAvailable() == 0) {
        QIODevice::open(openMode());
    } else {
        const QByteArray ahead = QIODevice::peek(QIODevice::bytesAvailable());
        frames.Consume(ahead.constData(), ahead.size());
    }
    UpdateReading();
    if (!plaintext.isEmpty())
        emit readyRead();
}

qint64 TlsServerSocket::bytesToWrite() const
{
    return queue.Size() + encrypted.size();
}

qint64 TlsServerSocket::bytesAvailable() const
{
    return isOpen() ? QTcpSocket::bytesAvailable() + Offered() : 0;
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

// Sends what waits and a close_notify, then ends once the peer took them.
void TlsServerSocket::disconnectFromHost()
{
    if (descriptor < 0 || closing)
        return;
    if (!ready || evicted) {
        Finish();
        return;
    }
    closing = true;
    readNotifier->setEnabled(false);
    WriteToPeer();
    if (descriptor >= 0)
        QTimer::singleShot(CloseDeadlineMs, this, &TlsServerSocket::Abort);
}

qint64 TlsServerSocket::readData(char *data, qint64 maxSize)
{
    const qint64 size = qMin(maxSize, Offered());
    if (size == 0)
        return descriptor >= 0 ? 0 : -1;
    std::memcpy(data, plaintext.constData(), size_t(size));
    if (started)
        frames.Consume(data, size);
    if (size == plaintext.size())
        plaintext.clear(); // gives the memory back, which remove() keeps
    else
        plaintext.remove(0, int(size));
    UpdateReading();
    return size;
}

// What the WebSocket layer may take: all the input, except while this
// connection is backlogged, when the frame it has begun is the last.
qint64 TlsServerSocket::Offered() const
{
    if (!started || !Backlogged())
        return plaintext.size();
    return frames.RestOfFrame(plaintext.constData(), plaintext.size());
}

void TlsServerSocket::Resume()
{
    if (descriptor >= 0 && !closing && !evicted && Offered() > 0)
        emit readyRead();
}

void TlsServerSocket::ReadFromPeer()
{
    char chunk[ChunkBytes];
    for (int i = 0; i < ReadsPerWake; ++i) {
        const qint64 got = SocketIo::Receive(descriptor, chunk, sizeof chunk);
        if (got == SocketIo::WouldBlock)
            return;
        if (got <= 0) {
            Finish(); // the end of the stream, or an error
            return;
        }
        if (!Take(chunk, got) || got < ChunkBytes || !readNotifier->isEnabled())
            return;
    }
}

// False once the connection has ended.
bool TlsServerSocket::Take(const char *bytes, qint64 size)
{
    return ssl ? Feed(bytes, size) : TakeHello(bytes, size);
}

// No TLS state exists until a whole, plausible ClientHello is there.
bool TlsServerSocket::TakeHello(const char *bytes, qint64 size)
{
    hello.append(bytes, int(size));
    const ClientHello::Verdict verdict = ClientHello::Check(hello.constData(), hello.size());
    if (verdict == ClientHello::Verdict::NeedMore)
        return true;
    ssl = verdict == ClientHello::Verdict::Complete ? SSL_new(context) : nullptr;
    BIO *bio = ssl ? StreamBio::New(&ends) : nullptr;
    if (!bio) {
        Finish();
        return false;
    }
    SSL_set_bio(ssl, bio, bio);
    SSL_set_accept_state(ssl);
    const QByteArray whole = std::exchange(hello, QByteArray());
    return Feed(whole.constData(), whole.size());
}

// OpenSSL takes all of it before asking for more, unless the connection
// ends first: nothing is kept for later.
bool TlsServerSocket::Feed(const char *bytes, qint64 size)
{
    ends.input = bytes;
    ends.inputSize = size;
    const bool alive = secure ? Decrypt() : ContinueHandshake();
    ends.input = nullptr;
    ends.inputSize = 0;
    return alive;
}

bool TlsServerSocket::ContinueHandshake()
{
    ERR_clear_error();
    const int result = SSL_do_handshake(ssl);
    const int error = SSL_get_error(ssl, result);
    WriteToPeer();
    if (result == 1) {
        secure = true;
        return Decrypt(); // the request may have come with the last handshake message
    }
    if (WantsMore(error) && descriptor >= 0)
        return true;
    Finish();
    return false;
}

bool TlsServerSocket::Decrypt()
{
    char chunk[ChunkBytes];
    const qint64 before = plaintext.size();
    int result;
    ERR_clear_error();
    while ((result = SSL_read(ssl, chunk, sizeof chunk)) > 0)
        plaintext.append(chunk, result);
    const int error = SSL_get_error(ssl, result);
    WriteToPeer(); // alerts, key updates
    if (plaintext.size() > before) {
        if (started)
            emit readyRead();
        else if (!ready)
            CheckRequestHead(before);
    }
    if (descriptor < 0 || closing)
        return false;
    if (error == SSL_ERROR_ZERO_RETURN) {
        disconnectFromHost();
        return false;
    }
    if (!WantsMore(error)) {
        Finish();
        return false;
    }
    UpdateReading();
    return true;
}

// The WebSocket layer sees the request only once its head is complete, and
// parses it once; a head that never ends is cut at MaxRequestHeadBytes.
void TlsServerSocket::CheckRequestHead(qint64 before)
{
    const QByteArray end("\r\n\r\n");
    if (plaintext.indexOf(end, int(qMax<qint64>(0, before - (end.size() - 1)))) < 0) {
        if (plaintext.size() > MaxRequestHeadBytes)
            Finish();
        return;
    }
    ready = true;
    setSocketState(ConnectedState);
    // Reads go straight to plaintext: a buffered QIODevice keeps a 16 kB
    // block of its own per connection once it has read through it.
    setOpenMode(QIODevice::ReadWrite | QIODevice::Unbuffered);
    emit Ready();
}

void TlsServerSocket::EncryptPending()
{
    if (secure && !evicted)
        WriteToPeer();
}

// Straight to the system, encrypting as it takes; what it does not take
// waits for the write notifier.
void TlsServerSocket::WriteToPeer()
{
    if (descriptor < 0)
        return;
    do
        TopUp();
    while (descriptor >= 0 && SendEncrypted() && !queue.IsEmpty());
    if (descriptor < 0)
        return;
    AccountUnsent();
    const bool waiting = !encrypted.isEmpty();
    if (waiting && !writeNotifier)
        writeNotifier = new DirectNotifier(descriptor, QSocketNotifier::Write, this, &TlsServerSocket::WriteToPeer);
    if (writeNotifier)
        writeNotifier->setEnabled(waiting);
    if (!waiting && shutDown)
        Finish();
    else
        UpdateReading();
}

// Encrypts what waits until about a share is ahead of the system; the
// close_notify goes once nothing waits any more.
void TlsServerSocket::TopUp()
{
    if (!secure || shutDown)
        return;
    char record[ChunkBytes];
    while (!queue.IsEmpty() && encrypted.size() < OwnUnsentBytes) {
        const qint64 size = queue.Take(record, sizeof record);
        ERR_clear_error();
        // The BIO never pushes back, so every record is taken whole.
        if (SSL_write(ssl, record, int(size)) <= 0) {
            Finish();
            return;
        }
    }
    if (closing && queue.IsEmpty()) {
        shutDown = true;
        ERR_clear_error();
        SSL_shutdown(ssl);
    }
}

// True when the system took everything encrypted. Until it has no room:
// Windows signals room again only after a send that found none.
bool TlsServerSocket::SendEncrypted()
{
    while (!encrypted.isEmpty()) {
        const qint64 taken = SocketIo::Send(descriptor, encrypted.constData(), encrypted.size());
        if (taken == SocketIo::WouldBlock)
            return false;
        if (taken <= 0) {
            // The caller may still be working on this connection: end it afterwards.
            encrypted.clear();
            queue.Clear();
            QMetaObject::invokeMethod(this, &TlsServerSocket::Abort, Qt::QueuedConnection);
            return false;
        }
        sent += taken;
        progressMs = NowMs();
        if (taken == encrypted.size())
            encrypted.clear();
        else
            encrypted.remove(0, int(taken));
    }
    return true;
}

void TlsServerSocket::UpdateReading()
{
    if (descriptor < 0 || closing || evicted)
        return;
    const bool waitingForSession = ready && !started;
    // A backlogged peer's further frames wait in the system's buffers, not
    // here: past one record of input, it is read no more until it catches up.
    const qint64 unreadLimit = Backlogged() ? ChunkBytes : MaxUnreadPlaintext;
    readNotifier->setEnabled(!waitingForSession && encrypted.size() <= MaxQueuedOutput
                             && plaintext.size() <= unreadLimit);
}

void TlsServerSocket::Finish()
{
    if (descriptor < 0)
        return;
    readNotifier->setEnabled(false);
    if (writeNotifier)
        writeNotifier->setEnabled(false);
    SocketIo::Close(descriptor);
    descriptor = -1;
    hello.clear();
    queue.Clear();
    encrypted.clear();
    AccountUnsent();
    if (state() != UnconnectedState) {
        setSocketState(UnconnectedState);
        emit stateChanged(UnconnectedState);
    }
    if (ready)
        emit disconnected();
    emit Ended();
}
