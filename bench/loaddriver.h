#pragma once

#include "loadworker.h"

#include <QThread>

#include <memory>

namespace Bench {

// Percentiles over a set of samples, in microseconds.
struct Latency
{
    qint64 count = 0;
    double p50 = 0;
    double p99 = 0;
    double p999 = 0;
};
Latency Summarise(std::vector<qint64> samplesNs);

struct ConnectResult
{
    int connected = 0;
    int failed = 0;
    double seconds = 0;
    double perSecond = 0;
};

struct PingResult
{
    Latency latency;
    double perSecond = 0;
};

// Spreads the connections over worker threads and runs each phase on all of
// them, returning once every worker has finished it.
class LoadDriver
{
public:
    explicit LoadDriver(int threads);
    ~LoadDriver();
    LoadDriver(const LoadDriver &) = delete;
    LoadDriver &operator=(const LoadDriver &) = delete;

    ConnectResult Connect(const QUrl &url, int count, int maxInFlight, bool resume = false, int timeoutMs = 120000);
    PingResult Ping(int durationMs);
    Latency QueryActiveClients(int count, int *entries);
    void Heartbeat(int intervalMs);
    void CloseAll();

    int Connections() const;
    int Drops() const;
    int ServerBeats() const;

private:
    void RunAll(const std::function<void(LoadWorker &, int share)> &op, int total = 0);
    std::vector<qint64> MergedRoundTrips() const;

    QSemaphore done;
    std::vector<std::unique_ptr<QThread>> threads;
    std::vector<LoadWorker *> workers;
};

} // namespace Bench
