#pragma once

#include <QByteArray>

#include <deque>

class UnsentPool;

// What waits to be encrypted for one connection, in order: copies of what was
// written, and parts of buffers that other connections may be sending too,
// which the pool counts once however many connections hold them.
class SendQueue
{
public:
    explicit SendQueue(UnsentPool *pool) : pool(pool) {}
    ~SendQueue() { Clear(); }
    SendQueue(const SendQueue &) = delete;
    SendQueue &operator=(const SendQueue &) = delete;

    void Append(const char *bytes, qint64 size);
    // bytes[begin, end) goes as it is, without a copy.
    void AppendShared(const QByteArray &bytes, qint64 begin, qint64 end);
    // Moves up to max bytes from the front into out; returns how many.
    qint64 Take(char *out, qint64 max);
    void Clear();

    bool IsEmpty() const { return size == 0; }
    qint64 Size() const { return size; }
    // The copies only: what this connection alone holds.
    qint64 OwnBytes() const { return own; }

private:
    struct Part
    {
        QByteArray bytes;
        qint64 begin;
        qint64 end;
        bool shared;
    };
    void Drop(const Part &part);

    UnsentPool *pool;
    std::deque<Part> parts;
    qint64 size = 0;
    qint64 own = 0;
};
