#include "notifysocket.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

bool NotifySocket::Resolve(const QByteArray &name, QByteArray &address, QString &error)
{
    sockaddr_un socketAddress = {};
    socketAddress.sun_family = AF_UNIX;
    const bool abstract = name.startsWith('@');
    // A path keeps its terminating NUL; an abstract name's leading NUL takes the '@''s place.
    const qsizetype room = qsizetype(sizeof socketAddress.sun_path) - (abstract ? 0 : 1);
    if (!abstract && !name.startsWith('/'))
        error = QStringLiteral("neither an absolute path nor an abstract name");
    else if (name.size() < 2)
        error = QStringLiteral("not a socket name");
    else if (name.size() > room)
        error = QStringLiteral("longer than the %1 bytes a socket address holds").arg(room);
    if (!error.isEmpty())
        return false;
    std::memcpy(socketAddress.sun_path, name.constData(), size_t(name.size()));
    if (abstract)
        socketAddress.sun_path[0] = '\0';
    // An abstract name is exactly its bytes, with no NUL after them.
    const size_t length = offsetof(sockaddr_un, sun_path) + size_t(name.size()) + (abstract ? 0 : 1);
    address = QByteArray(reinterpret_cast<const char *>(&socketAddress), qsizetype(length));
    return true;
}

bool NotifySocket::Send(const QByteArray &address, const QByteArray &message, QString &error)
{
    const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        error = QString::fromLocal8Bit(std::strerror(errno));
        return false;
    }
    // A full queue on systemd's side fails the send rather than stalling the loop.
    const ssize_t sent = ::sendto(fd, message.constData(), size_t(message.size()), MSG_DONTWAIT | MSG_NOSIGNAL,
                                  reinterpret_cast<const sockaddr *>(address.constData()), socklen_t(address.size()));
    const int sendError = errno;
    ::close(fd);
    if (sent == ssize_t(message.size()))
        return true;
    error = QString::fromLocal8Bit(std::strerror(sent < 0 ? sendError : EMSGSIZE));
    return false;
}
