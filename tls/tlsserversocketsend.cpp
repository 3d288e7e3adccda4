#include "tlsserversocket.h"

#include <QElapsedTimer>
#include <QSocketNotifier>

#include <algorithm>
#include <utility>

// The connection's write path: what may wait, for whom, and who makes room.

qint64 TlsServerSocket::NowMs()
{
    static QElapsedTimer clock;
    if (!clock.isValid())
        clock.start();
    return clock.elapsed();
}

// Writes are gathered until the event loop runs: a burst of small replies
// then goes out in a few full records instead of one record each.
qint64 TlsServerSocket::writeData(const char *data, qint64 size)
{
    if (!Accept(size, nullptr))
        return -1;
    queue.Append(data, size);
    AccountUnsent();
    return size;
}

bool TlsServerSocket::SendText(const QByteArray &utf8, quint64 frameSize)
{
    const qint64 total = utf8.size();
    const qint64 step = qint64(qBound<quint64>(1, frameSize, quint64(total > 0 ? total : 1)));
    // A server frame's header takes at most 10 bytes.
    const qint64 headers = qMax<qint64>(1, (total + step - 1) / step) * 10;
    if (!Accept(headers, &utf8))
        return false;
    qint64 begin = 0;
    do {
        const qint64 end = qMin(total, begin + step);
        const QByteArray header =
            WsFrames::ServerHeader(begin == 0 ? WsFrames::Text : WsFrames::Continuation, end == total, quint64(end - begin));
        queue.Append(header.constData(), header.size());
        queue.AppendShared(utf8, begin, end);
        begin = end;
    } while (begin < total);
    AccountUnsent();
    return true;
}

// Whether a write may be queued; the first one until the event loop runs
// has the queue encrypted then.
bool TlsServerSocket::Accept(qint64 ownBytes, const QByteArray *shared)
{
    if (!ready || closing || evicted || descriptor < 0 || !Admit(ownBytes, shared))
        return false;
    if (queue.IsEmpty())
        QMetaObject::invokeMethod(this, &TlsServerSocket::EncryptPending, Qt::QueuedConnection);
    return true;
}

// Whether ownBytes more of this connection's own, and shared if it is given,
// may wait; when they may not, the connection has ended.
bool TlsServerSocket::Admit(qint64 ownBytes, const QByteArray *shared)
{
    const qint64 sharedBytes = shared ? shared->size() : 0;
    if (bytesToWrite() + ownBytes + sharedBytes > unsentLimit)
        return Overrun(false);
    const qint64 own = queue.OwnBytes() + encrypted.size() + ownBytes;
    qint64 needed = qMax<qint64>(0, own - OwnUnsentBytes) - pooled;
    if (shared && !pool->Holds(*shared))
        needed += sharedBytes;
    if (pool->Used() + needed <= pool->Capacity() || MakeRoom(needed))
        return true;
    return Overrun(true);
}

// Ends the connections that have held the most for the longest until needed
// bytes fit; false when this one would have been next. Only an overflow walks
// the holders, and each one it walks past ends.
bool TlsServerSocket::MakeRoom(qint64 needed)
{
    QList<TlsServerSocket *> holders = pool->Holders();
    std::sort(holders.begin(), holders.end(),
              [](const TlsServerSocket *a, const TlsServerSocket *b) { return a->Stuck() > b->Stuck(); });
    for (TlsServerSocket *holder : qAsConst(holders)) {
        if (pool->Used() + needed <= pool->Capacity())
            return true;
        if (holder == this)
            return false;
        holder->Evict();
    }
    return pool->Used() + needed <= pool->Capacity();
}

bool TlsServerSocket::Overrun(bool poolFull)
{
    emit UnsentOverrun(bytesToWrite(), poolFull);
    Finish();
    return false;
}

// Gives back at once what another connection's write needs, and ends once the
// event loop runs: the writer may be walking the very list this one is in.
void TlsServerSocket::Evict()
{
    const qint64 held = bytesToWrite();
    evicted = true;
    readNotifier->setEnabled(false);
    if (writeNotifier)
        writeNotifier->setEnabled(false);
    queue.Clear();
    encrypted.clear();
    plaintext.clear();
    AccountUnsent();
    QMetaObject::invokeMethod(
        this,
        [this, held] {
            emit UnsentOverrun(held, true);
            Finish();
        },
        Qt::QueuedConnection);
}

// Bytes held times the milliseconds since the peer last took any: a peer that
// reads has little of either, one that never reads gains both.
qint64 TlsServerSocket::Stuck() const
{
    return bytesToWrite() * (1 + NowMs() - progressMs);
}

// Keeps the pool's count of what this connection holds of its own beyond
// its share, and its list of holders; input held back resumes once the
// backlog is gone.
void TlsServerSocket::AccountUnsent()
{
    const qint64 beyondShare = qMax<qint64>(0, queue.OwnBytes() + encrypted.size() - OwnUnsentBytes);
    pool->Charge(beyondShare - pooled);
    pooled = beyondShare;
    const bool nowHolding = bytesToWrite() > 0;
    if (nowHolding != holding) {
        holding = nowHolding;
        pool->SetHolding(this, holding);
        progressMs = NowMs();
    }
    const bool wasBacklogged = std::exchange(backlogged, Backlogged());
    if (wasBacklogged && !backlogged && started && !plaintext.isEmpty())
        QMetaObject::invokeMethod(this, &TlsServerSocket::Resume, Qt::QueuedConnection);
}
