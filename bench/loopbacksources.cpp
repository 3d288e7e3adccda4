// The server gives one host (IPv4 /32) a share of its connections and one
// network (/24) a rate of new ones, so a single address could not open the
// thousands of sessions a load run needs. Linux answers on all of 127/8
// without set-up, and QWebSocket offers no way to bind its socket: this
// program's own connect() takes the place of the C library's for every
// library in it, and sends each TCP connection to loopback from a source
// address of its own, spread over LoopbackNetworks networks.
#include <QtGlobal>

#include <atomic>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr quint32 LoopbackNetworks = 250;
constexpr quint32 HostsPerNetwork = 250;

bool ToLoopback(const sockaddr *address, socklen_t length)
{
    if (address == nullptr || length < socklen_t(sizeof(sockaddr_in)) || address->sa_family != AF_INET)
        return false;
    return (ntohl(reinterpret_cast<const sockaddr_in *>(address)->sin_addr.s_addr) >> 24) == 127;
}

bool UnboundStream(int descriptor)
{
    int type = 0;
    socklen_t typeLength = sizeof type;
    if (::getsockopt(descriptor, SOL_SOCKET, SO_TYPE, &type, &typeLength) != 0 || type != SOCK_STREAM)
        return false;
    sockaddr_in local{};
    socklen_t length = sizeof local;
    return ::getsockname(descriptor, reinterpret_cast<sockaddr *>(&local), &length) == 0
        && local.sin_family == AF_INET && local.sin_port == 0;
}

// 127.100.n.h: consecutive connections in different networks.
void BindNextSource(int descriptor)
{
    static std::atomic<quint32> next{0};
    const quint32 n = next++;
    sockaddr_in source{};
    source.sin_family = AF_INET;
    source.sin_addr.s_addr =
        htonl((127u << 24) | (100u << 16) | ((n % LoopbackNetworks) << 8) | (1 + (n / LoopbackNetworks) % HostsPerNetwork));
    ::bind(descriptor, reinterpret_cast<const sockaddr *>(&source), sizeof source);
}

} // namespace

extern "C" int connect(int descriptor, const sockaddr *address, socklen_t length)
{
    if (ToLoopback(address, length) && UnboundStream(descriptor))
        BindNextSource(descriptor);
    return int(::syscall(SYS_connect, descriptor, address, length));
}
