#include "notifysocket.h"

// systemd runs on Linux only; elsewhere NOTIFY_SOCKET names nothing.
bool NotifySocket::Resolve(const QByteArray &, QByteArray &, QString &error)
{
    error = QStringLiteral("service notifications exist on Linux only");
    return false;
}

bool NotifySocket::Send(const QByteArray &, const QByteArray &, QString &error)
{
    error = QStringLiteral("service notifications exist on Linux only");
    return false;
}
