#pragma once

#include <QObject>
#include <QSemaphore>
#include <QString>
#include <QTimer>
#include <QUrl>

#include <atomic>
#include <chrono>
#include <functional>
#include <vector>

class QWebSocket;

namespace Bench {

using Clock = std::chrono::steady_clock;

// Nanoseconds since an arbitrary fixed origin; comparable across threads.
qint64 NowNs();

// One thread's share of the load: a set of client connections driven from that
// thread's event loop. The driver calls the public operations from another
// thread; each one runs on the worker's thread and releases `done` when its
// phase is over, after which the driver may read the results.
class LoadWorker : public QObject
{
    Q_OBJECT

public:
    LoadWorker(int workerIndex, QSemaphore &done);
    ~LoadWorker() override;

    // Opens `count` more connections, at most `maxInFlight` handshakes at a
    // time; with `resume`, each offers the ticket the connection of its index
    // was given last time.
    void Connect(const QUrl &url, int count, int inFlightLimit, int timeoutMs, bool resume);
    // Every connection pings in a closed loop until `durationMs` has passed.
    void Ping(int durationMs);
    // The first connection asks for the active clients `count` times in a row.
    void QueryActiveClients(int count);
    // Sends "Heart Beat" on every connection each `intervalMs`; 0 stops it.
    void Heartbeat(int intervalMs);
    void CloseAll();

    int Connections() const { return int(sockets.size()); }

    // Results of the last phase.
    int connected = 0;
    int failed = 0;
    qint64 firstOpenNs = 0;
    qint64 lastConnectedNs = 0;
    std::vector<qint64> roundTrips;
    int lastActiveEntries = -1;
    // Counted over the worker's life.
    std::atomic<int> drops{0};
    std::atomic<int> serverBeats{0};

private:
    enum class Phase { Idle, Connecting, Pinging, Querying };

    void Post(std::function<void()> job);
    void OpenNext();
    void OnConnected();
    void Watch(QWebSocket *socket, size_t index);
    void KeepTickets(QWebSocket *socket, size_t index);
    void OnFailed(QWebSocket *socket);
    void OnMessage(size_t index, const QString &msg);
    void OnPong(size_t index);
    void OnActiveClients(const QString &msg);
    void FinishPhase();
    void SendHeartBeats();

    const int workerIndex;
    QSemaphore &done;
    Phase phase = Phase::Idle;
    std::vector<QWebSocket *> sockets;
    std::vector<qint64> sentAt;
    std::vector<char> established;
    // The latest session ticket of each connection index, kept across CloseAll.
    std::vector<QByteArray> tickets;
    bool offerTickets = false;

    QUrl target;
    int toOpen = 0;
    int inFlight = 0;
    int pending = 0;
    int remainingQueries = 0;
    qint64 deadlineNs = 0;
    int maxInFlight = 1;
    size_t queryIndex = 0;
    QTimer phaseTimer;
    QTimer heartbeatTimer;
};

} // namespace Bench
