#include "socketio.h"

#ifdef Q_OS_WIN
#include <winsock2.h>
#include <ws2tcpip.h>
#else
#include <arpa/inet.h>
#include <cerrno>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#endif

namespace SocketIo {

namespace {

#ifdef Q_OS_WIN
using Length = int;
bool NoRoom() { return WSAGetLastError() == WSAEWOULDBLOCK; }
#else
using Length = socklen_t;
bool Interrupted() { return errno == EINTR; }
bool NoRoom() { return errno == EAGAIN || errno == EWOULDBLOCK; }
#endif

// At most what one call may move; the rest waits for the next call.
int Clamp(qint64 size)
{
    return int(qMin<qint64>(size, 1 << 30));
}

qint64 Result(qint64 moved)
{
    if (moved >= 0)
        return moved;
    return NoRoom() ? WouldBlock : -1;
}

Endpoint FromStorage(const sockaddr_storage &storage)
{
    Endpoint endpoint;
    endpoint.address.setAddress(reinterpret_cast<const sockaddr *>(&storage));
    if (storage.ss_family == AF_INET)
        endpoint.port = ntohs(reinterpret_cast<const sockaddr_in &>(storage).sin_port);
    else if (storage.ss_family == AF_INET6)
        endpoint.port = ntohs(reinterpret_cast<const sockaddr_in6 &>(storage).sin6_port);
    return endpoint;
}

template <typename Query>
Endpoint Name(qintptr descriptor, Query query)
{
    sockaddr_storage storage{};
    Length length = sizeof storage;
    if (query(descriptor, reinterpret_cast<sockaddr *>(&storage), &length) != 0)
        return {};
    return FromStorage(storage);
}

} // namespace

#ifdef Q_OS_WIN

bool MakeNonBlocking(qintptr descriptor)
{
    u_long on = 1;
    return ::ioctlsocket(SOCKET(descriptor), FIONBIO, &on) == 0;
}

qint64 Receive(qintptr descriptor, char *data, qint64 size)
{
    return Result(::recv(SOCKET(descriptor), data, Clamp(size), 0));
}

qint64 Send(qintptr descriptor, const char *data, qint64 size)
{
    return Result(::send(SOCKET(descriptor), data, Clamp(size), 0));
}

void Close(qintptr descriptor)
{
    ::closesocket(SOCKET(descriptor));
}

Endpoint Peer(qintptr descriptor)
{
    return Name(descriptor, [](qintptr d, sockaddr *a, Length *l) { return ::getpeername(SOCKET(d), a, l); });
}

Endpoint Local(qintptr descriptor)
{
    return Name(descriptor, [](qintptr d, sockaddr *a, Length *l) { return ::getsockname(SOCKET(d), a, l); });
}

#else

bool MakeNonBlocking(qintptr descriptor)
{
    const int flags = ::fcntl(int(descriptor), F_GETFL);
    return flags >= 0 && ::fcntl(int(descriptor), F_SETFL, flags | O_NONBLOCK) == 0;
}

qint64 Receive(qintptr descriptor, char *data, qint64 size)
{
    ssize_t got;
    do
        got = ::recv(int(descriptor), data, size_t(Clamp(size)), 0);
    while (got < 0 && Interrupted());
    return Result(got);
}

qint64 Send(qintptr descriptor, const char *data, qint64 size)
{
    ssize_t sent;
    do
        sent = ::send(int(descriptor), data, size_t(Clamp(size)), MSG_NOSIGNAL);
    while (sent < 0 && Interrupted());
    return Result(sent);
}

void Close(qintptr descriptor)
{
    ::close(int(descriptor));
}

Endpoint Peer(qintptr descriptor)
{
    return Name(descriptor, [](qintptr d, sockaddr *a, Length *l) { return ::getpeername(int(d), a, l); });
}

Endpoint Local(qintptr descriptor)
{
    return Name(descriptor, [](qintptr d, sockaddr *a, Length *l) { return ::getsockname(int(d), a, l); });
}

#endif

} // namespace SocketIo
