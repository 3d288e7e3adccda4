#include "sendqueue.h"

#include "unsentpool.h"

#include <cstring>

namespace {

// Small writes join the last copy up to this size; a part leaves the queue,
// and gives its memory back, once it has been sent whole.
constexpr qint64 JoinedPartBytes = 16 * 1024;

} // namespace

void SendQueue::Append(const char *bytes, qint64 size)
{
    if (size <= 0)
        return;
    if (!parts.empty() && !parts.back().shared && parts.back().end + size <= JoinedPartBytes) {
        parts.back().bytes.append(bytes, int(size));
        parts.back().end += size;
    } else {
        parts.push_back({QByteArray(bytes, int(size)), 0, size, false});
    }
    this->size += size;
    own += size;
}

void SendQueue::AppendShared(const QByteArray &bytes, qint64 begin, qint64 end)
{
    if (end <= begin)
        return;
    pool->Hold(bytes);
    parts.push_back({bytes, begin, end, true});
    size += end - begin;
}

qint64 SendQueue::Take(char *out, qint64 max)
{
    qint64 taken = 0;
    while (taken < max && !parts.empty()) {
        Part &front = parts.front();
        const qint64 step = qMin(max - taken, front.end - front.begin);
        std::memcpy(out + taken, front.bytes.constData() + front.begin, size_t(step));
        front.begin += step;
        taken += step;
        if (!front.shared)
            own -= step;
        if (front.begin == front.end) {
            Drop(front);
            parts.pop_front();
        }
    }
    size -= taken;
    return taken;
}

void SendQueue::Clear()
{
    for (const Part &part : parts)
        Drop(part);
    parts.clear();
    size = 0;
    own = 0;
}

void SendQueue::Drop(const Part &part)
{
    if (part.shared)
        pool->Release(part.bytes);
}
