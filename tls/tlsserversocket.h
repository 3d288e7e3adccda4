#pragma once

#include "connectionbudget.h"
#include "sendqueue.h"
#include "streambio.h"
#include "unsentpool.h"
#include "wsframes.h"

#include <QByteArray>
#include <QTcpSocket>

#include <memory>

typedef struct ssl_st SSL;
typedef struct ssl_ctx_st SSL_CTX;
class QSocketNotifier;

// The server side of one TLS connection. It reads and writes its descriptor
// itself and runs OpenSSL over memory buffers with a context that every
// connection shares. Until the client's HTTP request head is complete it
// shows nothing; the WebSocket layer then sees it as a plain TCP socket, and
// gets what follows the head once the session has started.
//
// What is written waits unencrypted and is encrypted as the peer takes it,
// about OwnUnsentBytes ahead of the system. While more than that waits, the
// WebSocket layer gets no further frame from the peer: one that asks again
// and again without reading is not read from until its answers have gone.
class TlsServerSocket : public QTcpSocket
{
    Q_OBJECT

public:
    // Takes over an accepted descriptor and waits for the client's hello.
    TlsServerSocket(SSL_CTX *context, qintptr descriptor, std::shared_ptr<UnsentPool> pool, QObject *parent);
    ~TlsServerSocket() override;

    // Ends the connection at once, dropping whatever waits to be sent.
    void Abort();
    // The session over this connection exists: input past the request head flows.
    void StartSession();
    // A write that would leave more than this waiting, counted in
    // bytesToWrite(), ends the connection; UnsentOverrun is emitted first.
    // One that would overfill the pool first ends the connections that have
    // held the most for the longest, this one too if it is among them.
    void SetUnsentLimit(qint64 bytes) { unsentLimit = bytes; }
    // How far it has come, for a budget that must close one.
    ConnectionProgress Progress() const;
    // Sends utf8 as one text message, framed as QWebSocket frames it, without
    // copying it: connections sending the same buffer share it. False when
    // the connection ended instead.
    bool SendText(const QByteArray &utf8, quint64 frameSize);
    // More than this connection's share waits: no further frame is read.
    bool Backlogged() const { return bytesToWrite() > OwnUnsentBytes; }
    // Bytes the system has taken so far: a backlogged peer that reads moves it.
    qint64 Sent() const { return sent; }

    // Everything that waits to be sent: written but not encrypted yet, and
    // encrypted but not taken by the system.
    qint64 bytesToWrite() const override;
    qint64 bytesAvailable() const override;
    bool canReadLine() const override;
    void close() override;
    void disconnectFromHost() override;

    static constexpr qint64 OwnUnsentBytes = 64 * 1024;
    // A request head longer than this ends the connection.
    static constexpr int MaxRequestHeadBytes = 16 * 1024;

signals:
    // TLS is established and the request head has arrived whole.
    void Ready();
    // held: what waited unsent; poolFull: the connections' shared pool ran
    // out, rather than this connection's own limit.
    void UnsentOverrun(qint64 held, bool poolFull);
    // The connection is over, whichever way and in whichever phase it ended.
    void Ended();

protected:
    qint64 readData(char *data, qint64 maxSize) override;
    qint64 writeData(const char *data, qint64 size) override;

private:
    void ReadFromPeer();
    bool Take(const char *bytes, qint64 size);
    bool TakeHello(const char *bytes, qint64 size);
    bool Feed(const char *bytes, qint64 size);
    bool ContinueHandshake();
    bool Decrypt();
    void CheckRequestHead(qint64 before);
    qint64 Offered() const;
    void Resume();
    bool Accept(qint64 ownBytes, const QByteArray *shared);
    bool Admit(qint64 ownBytes, const QByteArray *shared);
    bool MakeRoom(qint64 needed);
    bool Overrun(bool poolFull);
    void Evict();
    qint64 Stuck() const;
    static qint64 NowMs();
    void EncryptPending();
    void WriteToPeer();
    void TopUp();
    bool SendEncrypted();
    void UpdateReading();
    void AccountUnsent();
    void Finish();

    SSL_CTX *context;
    qintptr descriptor;
    QSocketNotifier *readNotifier;
    QSocketNotifier *writeNotifier = nullptr;
    SSL *ssl = nullptr;
    // The first bytes, until they hold a whole ClientHello.
    QByteArray hello;
    QByteArray plaintext;
    // Where the client's frames end in what the WebSocket layer takes.
    WsFrames::Tracker frames;
    QByteArray encrypted;
    // OpenSSL reads what Feed lends it and writes to encrypted.
    StreamBio::Ends ends{nullptr, 0, &encrypted};
    std::shared_ptr<UnsentPool> pool;
    SendQueue queue{pool.get()};
    qint64 sent = 0;
    // When the system last took bytes, or this connection last had nothing unsent.
    qint64 progressMs = 0;
    // What this connection takes from the pool now.
    qint64 pooled = 0;
    qint64 unsentLimit = OwnUnsentBytes + UnsentPool::DefaultCapacity;
    bool secure = false;
    bool ready = false;
    bool started = false;
    bool closing = false;
    // The close_notify is out; nothing more is encrypted.
    bool shutDown = false;
    // Dropped to make room in the pool: it ends as soon as the event loop runs.
    bool evicted = false;
    bool holding = false;
    bool backlogged = false;
};
