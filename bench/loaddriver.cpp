#include "loaddriver.h"

#include <algorithm>

namespace Bench {

Latency Summarise(std::vector<qint64> samplesNs)
{
    Latency result;
    result.count = qint64(samplesNs.size());
    if (samplesNs.empty())
        return result;
    std::sort(samplesNs.begin(), samplesNs.end());
    const auto at = [&](double q) {
        const size_t i = std::min(samplesNs.size() - 1, size_t(q * double(samplesNs.size())));
        return double(samplesNs[i]) / 1000.0;
    };
    result.p50 = at(0.50);
    result.p99 = at(0.99);
    result.p999 = at(0.999);
    return result;
}

LoadDriver::LoadDriver(int threadCount)
{
    for (int i = 0; i < std::max(1, threadCount); ++i) {
        auto thread = std::make_unique<QThread>();
        auto *worker = new LoadWorker(i, done);
        worker->moveToThread(thread.get());
        QObject::connect(thread.get(), &QThread::finished, worker, &QObject::deleteLater);
        thread->start();
        workers.push_back(worker);
        threads.push_back(std::move(thread));
    }
}

LoadDriver::~LoadDriver()
{
    CloseAll();
    for (auto &thread : threads) {
        thread->quit();
        thread->wait();
    }
}

void LoadDriver::RunAll(const std::function<void(LoadWorker &, int)> &op, int total)
{
    const int n = int(workers.size());
    for (int i = 0; i < n; ++i)
        op(*workers[size_t(i)], total / n + (i < total % n ? 1 : 0));
    done.acquire(n);
}

ConnectResult LoadDriver::Connect(const QUrl &url, int count, int maxInFlight, bool resume, int timeoutMs)
{
    const int perWorker = std::max(1, maxInFlight / int(workers.size()));
    RunAll([&](LoadWorker &w, int share) { w.Connect(url, share, perWorker, timeoutMs, resume); }, count);
    ConnectResult result;
    qint64 first = std::numeric_limits<qint64>::max();
    qint64 last = 0;
    for (const LoadWorker *w : workers) {
        result.connected += w->connected;
        result.failed += w->failed;
        first = std::min(first, w->firstOpenNs);
        last = std::max(last, w->lastConnectedNs);
    }
    result.seconds = double(last - first) / 1e9;
    result.perSecond = result.seconds > 0 ? result.connected / result.seconds : 0;
    return result;
}

std::vector<qint64> LoadDriver::MergedRoundTrips() const
{
    std::vector<qint64> all;
    for (const LoadWorker *w : workers)
        all.insert(all.end(), w->roundTrips.begin(), w->roundTrips.end());
    return all;
}

PingResult LoadDriver::Ping(int durationMs)
{
    const qint64 start = NowNs();
    RunAll([&](LoadWorker &w, int) { w.Ping(durationMs); });
    const double seconds = double(NowNs() - start) / 1e9;
    PingResult result;
    result.latency = Summarise(MergedRoundTrips());
    result.perSecond = double(result.latency.count) / seconds;
    return result;
}

Latency LoadDriver::QueryActiveClients(int count, int *entries)
{
    // One asking connection is enough: the cost is building the whole list.
    LoadWorker &w = *workers.front();
    w.QueryActiveClients(count);
    done.acquire();
    *entries = w.lastActiveEntries;
    return Summarise(w.roundTrips);
}

void LoadDriver::Heartbeat(int intervalMs)
{
    RunAll([&](LoadWorker &w, int) { w.Heartbeat(intervalMs); });
}

void LoadDriver::CloseAll()
{
    RunAll([](LoadWorker &w, int) { w.CloseAll(); });
}

int LoadDriver::Connections() const
{
    int n = 0;
    for (const LoadWorker *w : workers)
        n += w->Connections();
    return n;
}

int LoadDriver::Drops() const
{
    int n = 0;
    for (const LoadWorker *w : workers)
        n += w->drops;
    return n;
}

int LoadDriver::ServerBeats() const
{
    int n = 0;
    for (const LoadWorker *w : workers)
        n += w->serverBeats;
    return n;
}

} // namespace Bench
