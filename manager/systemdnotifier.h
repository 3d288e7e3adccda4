#pragma once

#include <QObject>
#include <QTimer>

class LogSink;

// Tells systemd, when it runs the manager as a service of Type=notify, how
// the manager is doing: ready once start-up is over, stopping, and alive. The
// watchdog pings come from a timer of the main event loop, so a loop that
// hangs stops them and systemd restarts the service (WatchdogSec). Without
// NOTIFY_SOCKET nothing is sent; a malformed variable is reported once and
// ignored.
class SystemdNotifier : public QObject
{
    Q_OBJECT

public:
    // Watchdog timeouts below this would have the loop ping for little else.
    static constexpr qint64 MinWatchdogUsec = 20000;
    // A longer timeout is still pinged this often; a timer holds no more.
    static constexpr int MaxPingIntervalMs = 60 * 60 * 1000;
    // systemd ignores a whole message of more than 4096 bytes.
    static constexpr int MaxStatusLength = 500;

    explicit SystemdNotifier(LogSink *log, QObject *parent = nullptr);

public slots:
    // Takes NOTIFY_SOCKET, WATCHDOG_USEC and WATCHDOG_PID out of the
    // environment, so that no child inherits them, says READY=1 with the
    // status and starts the pings. Read only now, when the log is this
    // instance's: a refused second instance reports nothing.
    void Ready(const QString &status);
    // After Ready only: systemd knows of no start-up before it.
    void Stopping();

private:
    void TakeSocket();
    void StartWatchdog();
    void Notify(const QByteArray &state);
    void Warn(const QString &text);

    LogSink *log;
    QByteArray address;
    QTimer watchdog;
    bool sendFailing = false;
};
