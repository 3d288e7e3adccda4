#pragma once

#include <QObject>

#include <memory>

class QAbstractNativeEventFilter;
class QSocketNotifier;

// Turns the requests to end the process (SIGTERM and SIGINT; on Windows the
// console's control events and a WM_CLOSE sent to the process's threads, as
// the service host and QProcess::terminate send it) into a signal in the event
// loop, so that the manager stops its server the usual way. One instance at a
// time, made after the application object.
class StopSignals : public QObject
{
    Q_OBJECT

public:
    explicit StopSignals(QObject *parent = nullptr);
    ~StopSignals() override;

signals:
    void Received();

private:
#ifdef Q_OS_WIN
    std::unique_ptr<QAbstractNativeEventFilter> closeFilter;
#else
    void Drain();

    QSocketNotifier *notifier = nullptr;
#endif
};
