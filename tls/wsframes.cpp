#include "wsframes.h"

#include <QtGlobal>

namespace WsFrames {

namespace {

constexpr int MaxHeaderBytes = 14;
// A declared length is cut here, so that header plus payload cannot overflow;
// the WebSocket layer refuses any frame near it anyway.
constexpr quint64 MaxCountedPayload = quint64(1) << 62;

// The whole frame's size, header included, once its header is all there.
bool FrameSize(const char *bytes, qint64 size, quint64 *total)
{
    if (size < 2)
        return false;
    const quint8 shortLength = quint8(bytes[1]) & 0x7f;
    const bool masked = (quint8(bytes[1]) & 0x80) != 0;
    const int lengthBytes = shortLength == 126 ? 2 : shortLength == 127 ? 8 : 0;
    const int headerBytes = 2 + lengthBytes + (masked ? 4 : 0);
    if (size < headerBytes)
        return false;
    quint64 payload = lengthBytes == 0 ? shortLength : 0;
    for (int i = 0; i < lengthBytes; ++i)
        payload = (payload << 8) | quint8(bytes[2 + i]);
    *total = quint64(headerBytes) + qMin(payload, MaxCountedPayload);
    return true;
}

} // namespace

QByteArray ServerHeader(quint8 opcode, bool last, quint64 size)
{
    QByteArray header;
    header.append(char((last ? 0x80 : 0) | opcode));
    const int lengthBytes = size < 126 ? 0 : size <= 0xffff ? 2 : 8;
    header.append(char(lengthBytes == 0 ? int(size) : lengthBytes == 2 ? 126 : 127));
    for (int shift = 8 * (lengthBytes - 1); shift >= 0; shift -= 8)
        header.append(char((size >> shift) & 0xff));
    return header;
}

void Tracker::Consume(const char *bytes, qint64 size)
{
    while (size > 0) {
        if (left > 0) {
            const qint64 step = qint64(qMin(left, quint64(size)));
            left -= quint64(step);
            bytes += step;
            size -= step;
            continue;
        }
        header.append(*bytes++);
        --size;
        quint64 total = 0;
        if (FrameSize(header.constData(), header.size(), &total)) {
            left = total - quint64(header.size());
            header.clear();
        }
    }
}

qint64 Tracker::RestOfFrame(const char *waiting, qint64 size) const
{
    if (left > 0)
        return qint64(qMin(left, quint64(size)));
    if (header.isEmpty())
        return 0;
    const QByteArray joined = header + QByteArray(waiting, int(qMin<qint64>(size, MaxHeaderBytes)));
    quint64 total = 0;
    if (!FrameSize(joined.constData(), joined.size(), &total))
        return size;
    return qint64(qMin(total - quint64(header.size()), quint64(size)));
}

} // namespace WsFrames
