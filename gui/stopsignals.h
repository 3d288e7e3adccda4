#pragma once

#include <QObject>

class QSocketNotifier;

// Turns the requests to end the process (SIGTERM and SIGINT; on Windows the
// console's control events) into a signal in the event loop, so that the
// manager stops its server the usual way. One instance at a time.
class StopSignals : public QObject
{
    Q_OBJECT

public:
    explicit StopSignals(QObject *parent = nullptr);
    ~StopSignals() override;

signals:
    void Received();

private:
#ifndef Q_OS_WIN
    void Drain();

    QSocketNotifier *notifier = nullptr;
#endif
};
