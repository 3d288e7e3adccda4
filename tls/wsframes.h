#pragma once

#include <QByteArray>

// What the transport knows of WebSocket framing: where each of the client's
// frames ends, so that input can stop between two of them, and the header of
// a server frame, which is never masked.
namespace WsFrames {

constexpr quint8 Continuation = 0x0;
constexpr quint8 Text = 0x1;

// The header of a server frame with size bytes of payload, as QWebSocket writes it.
QByteArray ServerHeader(quint8 opcode, bool last, quint64 size);

// Follows the client's frames through the bytes handed to the WebSocket layer.
class Tracker
{
public:
    // These bytes are the next ones the layer takes.
    void Consume(const char *bytes, qint64 size);
    // How many of the waiting bytes belong to the frame the layer has begun;
    // 0 between two frames.
    qint64 RestOfFrame(const char *waiting, qint64 size) const;

private:
    // Bytes of the frame under way not taken yet, once its header is whole.
    quint64 left = 0;
    // The part of a header taken so far, while it is incomplete.
    QByteArray header;
};

} // namespace WsFrames
