#pragma once

#include <QByteArray>
#include <QString>

// The datagram socket on which systemd takes a service's state (READY=1,
// WATCHDOG=1, ...): NOTIFY_SOCKET names it, a path or, with a leading '@', a
// name in the abstract namespace. Spoken directly rather than through
// libsystemd's sd_notify: the protocol is one datagram, and the manager then
// needs no library more to install or to build for Windows.
namespace NotifySocket {

// The socket address for the name; false, with the reason, when the name
// cannot be one (not absolute, empty, too long) or off Linux.
bool Resolve(const QByteArray &name, QByteArray &address, QString &error);
// Sends one datagram to a resolved address from a socket of its own, closed
// again, so no descriptor is left for a child to inherit. False with the
// system's reason.
bool Send(const QByteArray &address, const QByteArray &message, QString &error);

} // namespace NotifySocket
