#pragma once

#include <QHostAddress>

// Non-blocking I/O on an accepted descriptor, the same on Unix and Windows.
namespace SocketIo {

// What Receive and Send give back when the system has nothing or no room now.
constexpr qint64 WouldBlock = -2;

bool MakeNonBlocking(qintptr descriptor);
// Bytes read, 0 at the end of the stream, WouldBlock, or -1 on an error.
qint64 Receive(qintptr descriptor, char *data, qint64 size);
// Bytes taken, WouldBlock, or -1 on an error.
qint64 Send(qintptr descriptor, const char *data, qint64 size);
void Close(qintptr descriptor);

struct Endpoint
{
    QHostAddress address;
    quint16 port = 0;
};
Endpoint Peer(qintptr descriptor);
Endpoint Local(qintptr descriptor);

} // namespace SocketIo
