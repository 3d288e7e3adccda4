#include "clienthello.h"

namespace ClientHello {

namespace {

constexpr quint8 HandshakeRecord = 0x16;
constexpr quint8 ClientHelloType = 0x01;
constexpr int HandshakeHeaderBytes = 4;

quint32 BigEndian(const char *bytes, int count)
{
    quint32 value = 0;
    for (int i = 0; i < count; ++i)
        value = (value << 8) | quint8(bytes[i]);
    return value;
}

} // namespace

Verdict Check(const char *bytes, qint64 size)
{
    // Record header: type, version 3.x, length.
    if (size >= 1 && quint8(bytes[0]) != HandshakeRecord)
        return Verdict::Refused;
    if (size >= 2 && quint8(bytes[1]) != 3)
        return Verdict::Refused;
    if (size < RecordHeaderBytes)
        return Verdict::NeedMore;
    const quint32 recordLength = BigEndian(bytes + 3, 2);
    if (recordLength < HandshakeHeaderBytes || recordLength > quint32(MaxBytes))
        return Verdict::Refused;

    // Handshake header: type, 24-bit length; the message fills the record.
    if (size >= RecordHeaderBytes + 1 && quint8(bytes[RecordHeaderBytes]) != ClientHelloType)
        return Verdict::Refused;
    if (size < RecordHeaderBytes + HandshakeHeaderBytes)
        return Verdict::NeedMore;
    const quint32 helloLength = BigEndian(bytes + RecordHeaderBytes + 1, 3);
    if (helloLength + HandshakeHeaderBytes > recordLength)
        return Verdict::Refused;
    return size >= RecordHeaderBytes + qint64(recordLength) ? Verdict::Complete : Verdict::NeedMore;
}

} // namespace ClientHello
