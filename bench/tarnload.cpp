// tarn-load: opens many secure WebSocket client connections against one
// session server on this machine and prints what it measured, one
// "RESULT <key> <value>" line per figure.

#include "descriptorlimit.h"
#include "loaddriver.h"
#include "scalableeventloop.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFile>
#include <QHostAddress>
#include <QThread>

#include <cstdio>
#include <unistd.h>

using namespace Bench;

namespace {

struct Options
{
    QUrl url;
    qint64 serverPid = 0;
    int threads = 1;
    int handshakes = 1000;
    int clients = 10000;
    int inFlight = 200;
    int pingMs = 5000;
    QList<int> pingSizes{1, 100, 1000};
    int queries = 50;
    int stormClients = 1000;
    int holdMs = 60000;
    int heartbeatMs = 20000;
    int settleMs = 2000;
};

void Result(const char *key, double value)
{
    std::printf("RESULT %s %.6g\n", key, value);
    std::fflush(stdout);
}

void Note(const QString &text)
{
    std::fprintf(stderr, "tarn-load: %s\n", qPrintable(text));
}

// Resident set size of the server process in kB, or -1 when unknown.
qint64 ServerRssKb(qint64 pid)
{
    if (pid <= 0)
        return -1;
    QFile status(QStringLiteral("/proc/%1/status").arg(pid));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray &line : status.readAll().split('\n'))
        if (line.startsWith("VmRSS:"))
            return line.mid(6).trimmed().split(' ').value(0).toLongLong();
    return -1;
}

// CPU time the server process has used, user and system, in seconds; -1 when unknown.
double ServerCpuSeconds(qint64 pid)
{
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (pid <= 0 || !stat.open(QIODevice::ReadOnly))
        return -1;
    // The fields after the command name, which ends with the last ')'; utime and stime are the 12th and 13th.
    const QByteArray text = stat.readAll();
    const QList<QByteArray> fields = text.mid(text.lastIndexOf(')') + 2).split(' ');
    if (fields.size() < 13)
        return -1;
    return double(fields.at(11).toLongLong() + fields.at(12).toLongLong()) / double(sysconf(_SC_CLK_TCK));
}

void ReportLatency(const QByteArray &prefix, const Latency &l)
{
    Result((prefix + "_p50_us").constData(), l.p50);
    Result((prefix + "_p99_us").constData(), l.p99);
    Result((prefix + "_p999_us").constData(), l.p999);
}

// Connects, reports the rate, and says whether every connection came up.
bool ConnectStep(LoadDriver &load, const Options &o, int count, const QByteArray &key, int inFlight = 0,
                 bool resume = false)
{
    const double cpuBefore = ServerCpuSeconds(o.serverPid);
    const ConnectResult r = load.Connect(o.url, count, inFlight > 0 ? inFlight : o.inFlight, resume);
    // What a handshake costs the server, whatever limits the rate: its capacity on one core.
    if (cpuBefore >= 0 && r.connected > 0)
        Result((key + "_server_cpu_us").constData(), (ServerCpuSeconds(o.serverPid) - cpuBefore) * 1e6 / r.connected);
    Note(QStringLiteral("%1: %2 connected, %3 failed in %4 s").arg(QString::fromLatin1(key)).arg(r.connected)
             .arg(r.failed).arg(r.seconds));
    Result((key + "_per_s").constData(), r.perSecond);
    Result((key + "_failed").constData(), r.failed);
    return r.failed == 0;
}

// Handshakes, memory, the active-clients list and the hold, on one growing set.
bool ScalePhase(LoadDriver &load, const Options &o)
{
    const qint64 rss0 = ServerRssKb(o.serverPid);
    Result("rss_0_kb", double(rss0));
    load.Heartbeat(o.heartbeatMs);
    bool ok = ConnectStep(load, o, o.handshakes, "handshake");
    QThread::msleep(ulong(o.settleMs));
    Result("rss_1k_kb", double(ServerRssKb(o.serverPid)));
    ok = ConnectStep(load, o, o.clients - o.handshakes, "handshake_to_full") && ok;
    QThread::msleep(ulong(o.settleMs));
    const qint64 rssFull = ServerRssKb(o.serverPid);
    Result("rss_full_kb", double(rssFull));
    Result("rss_per_conn_kb", double(rssFull - rss0) / o.clients);

    int entries = 0;
    ReportLatency("active", load.QueryActiveClients(o.queries, &entries));
    Result("active_entries", entries);

    Note(QStringLiteral("holding %1 connections for %2 s").arg(o.clients).arg(o.holdMs / 1000));
    const int beatsBefore = load.ServerBeats();
    QThread::msleep(ulong(o.holdMs));
    load.QueryActiveClients(1, &entries);
    Result("hold_client_drops", load.Drops());
    Result("hold_listed", entries);
    Result("hold_server_beats", load.ServerBeats() - beatsBefore);
    load.Heartbeat(0);
    load.CloseAll();
    return ok && load.Drops() == 0 && entries == o.clients;
}

bool PingPhase(LoadDriver &load, const Options &o)
{
    bool ok = true;
    for (int n : o.pingSizes) {
        QThread::msleep(ulong(o.settleMs));
        ok = ConnectStep(load, o, n, "ping_connect") && ok;
        const PingResult r = load.Ping(o.pingMs);
        const QByteArray prefix = "ping_" + QByteArray::number(n);
        Result((prefix + "_per_s").constData(), r.perSecond);
        ReportLatency(prefix, r.latency);
        ok = ok && r.latency.count > 0;
        // The active-clients list at this many sessions too: one per connection.
        int entries = 0;
        ReportLatency("active_" + QByteArray::number(n), load.QueryActiveClients(o.queries, &entries));
        load.CloseAll();
    }
    return ok;
}

// The same clients reconnect at once after a blip, first offering the tickets
// their last sessions left them, then without. At most 500 handshakes are in
// flight, just under what the server lets one address have.
bool StormPhase(LoadDriver &load, const Options &o)
{
    const int inFlight = std::min(o.stormClients, 500);
    QThread::msleep(ulong(o.settleMs));
    bool ok = ConnectStep(load, o, o.stormClients, "storm_first", inFlight);
    for (const bool resume : {true, false}) {
        load.CloseAll();
        QThread::msleep(ulong(o.settleMs));
        ok = ConnectStep(load, o, o.stormClients, resume ? "storm_resumed" : "storm_full", inFlight, resume) && ok;
    }
    load.CloseAll();
    return ok;
}

bool IsLoopback(const QUrl &url)
{
    const QString host = url.host();
    return host == QLatin1String("localhost") || QHostAddress(host).isLoopback();
}

Options Parse(const QCoreApplication &app)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Load generator for the Tarn session server (loopback only)."));
    parser.addHelpOption();
    const QCommandLineOption port(QStringLiteral("port"), QStringLiteral("Server port on 127.0.0.1."), QStringLiteral("port"));
    const QCommandLineOption pid(QStringLiteral("server-pid"), QStringLiteral("Server process, for its memory."), QStringLiteral("pid"));
    const QCommandLineOption threads(QStringLiteral("threads"), QStringLiteral("Client threads."), QStringLiteral("n"), QStringLiteral("1"));
    const QCommandLineOption clients(QStringLiteral("clients"), QStringLiteral("Connections held."), QStringLiteral("n"), QStringLiteral("10000"));
    const QCommandLineOption hold(QStringLiteral("hold-seconds"), QStringLiteral("Hold duration."), QStringLiteral("s"), QStringLiteral("60"));
    const QCommandLineOption smoke(QStringLiteral("smoke"), QStringLiteral("A few seconds' run with small counts."));
    parser.addOptions({port, pid, threads, clients, hold, smoke});
    parser.process(app);

    Options o;
    o.url = QUrl(QStringLiteral("wss://127.0.0.1:%1").arg(parser.value(port)));
    o.serverPid = parser.value(pid).toLongLong();
    o.threads = parser.value(threads).toInt();
    o.clients = parser.value(clients).toInt();
    o.holdMs = parser.value(hold).toInt() * 1000;
    if (parser.isSet(smoke)) {
        o.handshakes = 20;
        o.clients = 50;
        o.pingMs = 300;
        o.pingSizes = {1, 10};
        o.queries = 5;
        o.stormClients = 20;
        o.holdMs = 1500;
        o.heartbeatMs = 300;
        o.settleMs = 100;
    }
    o.handshakes = std::min(o.handshakes, o.clients);
    return o;
}

} // namespace

int main(int argc, char *argv[])
{
    Tarn::RaiseDescriptorLimit();
    // Thousands of client sockets meet the same event-loop cost as the server's.
    Tarn::PreferScalableEventLoop();
    QCoreApplication app(argc, argv);
    const Options o = Parse(app);
    if (!o.url.isValid() || o.url.port() <= 0 || !IsLoopback(o.url)) {
        Note(QStringLiteral("a server port on 127.0.0.1 is required"));
        return 2;
    }
    LoadDriver load(o.threads);
    const bool scaled = ScalePhase(load, o);
    const bool pinged = PingPhase(load, o);
    const bool stormed = StormPhase(load, o);
    const bool ok = scaled && pinged && stormed;
    Note(ok ? QStringLiteral("all phases complete") : QStringLiteral("some connections failed or dropped"));
    return ok ? 0 : 1;
}
