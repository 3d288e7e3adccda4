#pragma once

#include <QObject>
#include <QSocketNotifier>
#include <QTimer>

// Accepts on a listening socket in place of Qt, so that running out of
// descriptors neither spins the event loop nor leaves clients hanging.
//
// Out of descriptors, accept fails while the connection stays first in the
// kernel's queue, so the socket is readable again at once. Qt keeps only the
// first error of a socket: once an accept has found the queue empty, every
// later failure reads as "try again", its notifier stays on and the loop
// wakes for the same connection tens of thousands of times a second.
// Pausing alone would stop that but leave the queue full and every client
// hanging until its own timeout. One spare descriptor, kept open for this,
// makes room instead: it is closed, the waiting connection is accepted and
// closed at once, so its client sees a refusal, and the spare is opened
// again. Only when even that fails (the whole system out of descriptors)
// does accepting pause for a while.
class Acceptor : public QObject
{
    Q_OBJECT

public:
    // listening: a bound, listening, non-blocking socket that stays open
    // longer than this object.
    explicit Acceptor(qintptr listening);
    ~Acceptor() override;

    static constexpr int RetryMs = 1000;
    // Accepts per wake-up, so that a burst of connections still lets the
    // loop serve the connected ones.
    static constexpr int MaxPerWake = 256;

signals:
    // A new connection, non-blocking and close-on-exec, now the receiver's.
    void Accepted(qintptr descriptor);
    // A connection was accepted and closed at once for want of descriptors.
    void Refused();

private:
    void AcceptWaiting();
    bool RefuseOne();
    void Pause();
    void Resume();

    int listening;
    int spare = -1;
    QSocketNotifier notifier;
    QTimer retryTimer;
};
