#include "systemdnotifier.h"

#include "loglevel.h"
#include "logsink.h"
#include "notifysocket.h"

#include <QCoreApplication>

#include <algorithm>

namespace {

// The variable's value, removed from the environment.
QByteArray Take(const char *name)
{
    const QByteArray value = qgetenv(name);
    qunsetenv(name);
    return value;
}

// Decimal digits only, and few enough that no overflow is possible.
bool ParseCount(const QByteArray &text, qint64 &count)
{
    constexpr int MaxDigits = 18;
    if (text.isEmpty() || text.size() > MaxDigits
        || !std::all_of(text.cbegin(), text.cend(), [](char c) { return c >= '0' && c <= '9'; }))
        return false;
    count = text.toLongLong();
    return true;
}

// One line of at most MaxStatusLength characters: a line break would begin
// another field of the message.
QByteArray StatusField(const QString &status)
{
    QString line = status.left(SystemdNotifier::MaxStatusLength);
    line.replace(QLatin1Char('\n'), QLatin1Char(' '));
    return "\nSTATUS=" + line.toUtf8();
}

} // namespace

SystemdNotifier::SystemdNotifier(LogSink *log, QObject *parent)
    : QObject(parent)
    , log(log)
{
    connect(&watchdog, &QTimer::timeout, this, [this] { Notify("WATCHDOG=1"); });
}

void SystemdNotifier::Ready(const QString &status)
{
    TakeSocket();
    StartWatchdog();
    Notify("READY=1" + StatusField(status));
}

void SystemdNotifier::Stopping()
{
    Notify("STOPPING=1" + StatusField(QStringLiteral("Stopping.")));
}

void SystemdNotifier::TakeSocket()
{
    const QByteArray name = Take("NOTIFY_SOCKET");
    QString error;
    if (!name.isEmpty() && !NotifySocket::Resolve(name, address, error))
        Warn(QStringLiteral("NOTIFY_SOCKET is ignored: %1.").arg(error));
}

// systemd sets WATCHDOG_PID to the process it watches; one inherited from a
// parent names another process.
void SystemdNotifier::StartWatchdog()
{
    const QByteArray usecText = Take("WATCHDOG_USEC");
    const QByteArray pidText = Take("WATCHDOG_PID");
    if (address.isEmpty() || usecText.isEmpty())
        return;
    qint64 pid = 0;
    if (!pidText.isEmpty() && !ParseCount(pidText, pid)) {
        Warn(QStringLiteral("WATCHDOG_PID is not a process number; the watchdog is not pinged."));
        return;
    }
    if (!pidText.isEmpty() && pid != QCoreApplication::applicationPid())
        return;
    qint64 usec = 0;
    if (!ParseCount(usecText, usec) || usec < MinWatchdogUsec) {
        Warn(QStringLiteral("WATCHDOG_USEC is not a number of microseconds from %1; the watchdog is not pinged.")
                 .arg(MinWatchdogUsec));
        return;
    }
    // Half the timeout: a ping that comes a little late is still in time.
    watchdog.start(int(std::min<qint64>(usec / 2000, MaxPingIntervalMs)));
}

// A failure shows once, and again only after a message has got through.
void SystemdNotifier::Notify(const QByteArray &state)
{
    if (address.isEmpty())
        return;
    QString error;
    const bool sent = NotifySocket::Send(address, state, error);
    if (!sent && !sendFailing)
        Warn(QStringLiteral("Cannot notify systemd: %1.").arg(error));
    sendFailing = !sent;
}

void SystemdNotifier::Warn(const QString &text)
{
    log->Log(text, LogLevel::Warning, false);
}
