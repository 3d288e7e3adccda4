#pragma once

#include <QHash>
#include <QSet>

class QByteArray;
class TlsServerSocket;

// What the connections of one listener may leave unsent beyond their own
// share, together: with every connection allowed a large queue of its own, a
// crowd that never reads would hold their number times that. A buffer that
// several connections send (the active-clients reply) is counted once, for
// as long as any of them still has part of it to send.
//
// One connection that never reads holds at most its own share
// (TlsServerSocket::OwnUnsentBytes, all of it encrypted), the record being
// encrypted past it, and whatever one request's answer is: it is not read
// from while more than its share waits. What all of them hold beyond their
// shares, shared answers included, stays under its capacity; when a write would
// pass it, the connections that have held the most for the longest are
// dropped to make room.
class UnsentPool
{
public:
    static constexpr qint64 DefaultCapacity = 32 * 1024 * 1024;

    explicit UnsentPool(qint64 capacity = DefaultCapacity) : capacity(capacity) {}

    qint64 Capacity() const { return capacity; }
    qint64 Used() const { return owned + sharedBytes; }
    // What one connection holds of its own beyond its share changed by delta.
    void Charge(qint64 delta) { owned += delta; }

    bool Holds(const QByteArray &bytes) const;
    // One more (one less) part of bytes waits in some connection.
    void Hold(const QByteArray &bytes);
    void Release(const QByteArray &bytes);

    // The connections with anything unsent: the only ones that can make room.
    void SetHolding(TlsServerSocket *socket, bool holding);
    QList<TlsServerSocket *> Holders() const { return holders.values(); }

private:
    struct Shared
    {
        qint64 size = 0;
        int parts = 0;
    };
    qint64 capacity;
    qint64 owned = 0;
    qint64 sharedBytes = 0;
    // Keyed by the buffer's data, which stays put while any part of it waits.
    QHash<const char *, Shared> shared;
    QSet<TlsServerSocket *> holders;
};
