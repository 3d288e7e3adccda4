#pragma once

#include <QtGlobal>

#include <functional>
#include <map>
#include <set>
#include <tuple>
#include <unordered_map>
#include <vector>

class QHostAddress;

// How far a connection has come; a budget that must close one closes the
// least advanced.
enum class ConnectionProgress { Connected, HelloReceived, Secure, Ready, Session };

// The listener's bookkeeping of who holds which connections, so that a peer
// with a few addresses cannot take the room of everyone else.
//
// Two kinds of address group:
// - the host (IPv4 /32, IPv6 /128): a machine may run hundreds of clients,
//   so it gets MaxPerHost connections, sessions and unfinished ones together
//   (an IPv6 /64 is a whole LAN of SLAAC or link-local machines);
// - the network (IPv4 /24, IPv6 /64): what one peer can cheaply claim to be.
//   Unfinished connections (accepted, not taken over yet) are counted per
//   network, and each network has its own rate of new connections.
//
// When a budget is full, whoever holds the most pays (a network from its
// address with the most), with its least advanced connection (ties: the
// oldest): a newcomer from a lighter group is never the one refused. When
// all connections together are at the total, an unfinished connection pays
// before any session: a connection that never sent a byte must not close
// another machine's session. The numbers:
// - MaxPerHost 512: a terminal server with hundreds of users fits; one host
//   then holds about 14 MB of idle sessions (about 27 kB each).
// - MaxPending 1,000 and MaxPendingPerNetwork 512: a handshake is a few
//   kilobytes, and no real network has hundreds in flight for seconds.
// - Rate 100 a second, burst 1,000 per network: a burst as large as the
//   whole pending budget lets a classroom start at once; a handshake costs
//   about 1 ms of CPU, so one network's churn costs at most a tenth of a core.
//   Past it, the newcomer is closed at once, before any TLS work (the caller
//   asks WithinRate before it makes anything for the connection).
// - Rate 25 a second, burst 640 per host, asked first: only what a host is
//   allowed counts against its network, so a machine connecting in a loop
//   leaves three quarters of its network's rate to its neighbours. The burst
//   is all a host may hold (a terminal server's clients reconnecting at
//   once) and a quarter more, so that a host at its share still replaces its
//   own stalled connections with new ones at once.
//
// Every operation is O(log n): no walk over the connections per accept, and
// ordered maps, which peers who choose their addresses cannot make collide as
// they could a hash. A connection's progress is looked at only when it is a
// candidate for closing (it only ever grows, so a stale rank is fixed on the
// way).
class ConnectionBudget
{
public:
    using Id = quintptr;
    using ProgressOf = std::function<ConnectionProgress(Id)>;

    static constexpr int MaxPerHost = 512;
    static constexpr int MaxPending = 1000;
    static constexpr int MaxPendingPerNetwork = 512;
    static constexpr int RatePerSecond = 100;
    static constexpr int Burst = 1000;
    static constexpr int HostRatePerSecond = 25;
    static constexpr int HostBurst = MaxPerHost * 5 / 4;

    // An address or prefix as two 64-bit halves, IPv4 in its IPv6-mapped form.
    using Group = std::pair<quint64, quint64>;
    struct Groups
    {
        Group host;
        Group network;
    };
    static Groups GroupsOf(const QHostAddress &address);

    // What Admit decided, and whom it closed to make room: Abort them.
    struct Outcome
    {
        // False: refused, its host holding its share in sessions, or the
        // most at a total of sessions only.
        bool admitted = true;
        // Unfinished ones, for any budget.
        std::vector<Id> displaced;
        // Sessions, for the total: from the host that holds the most.
        std::vector<Id> evicted;
    };

    explicit ConnectionBudget(ProgressOf progressOf);

    // -1: no limit on all connections together (sessions and unfinished).
    void SetTotalLimit(int limit) { totalLimit = limit; }

    // Takes one of the host's new connections, then one of its network's, at
    // nowMs (a steady clock); false when either has none left.
    bool WithinRate(const Groups &groups, qint64 nowMs);
    // A new connection, within its network's rate; when refused, it was not
    // counted.
    Outcome Admit(Id id, const Groups &groups);
    // It reached a stage the listener sees (Ready, or Session on takeover).
    void Advance(Id id, ConnectionProgress progress);
    // It ended; unknown ones are ignored.
    void Remove(Id id);
    // Forgets the rate of groups that have been quiet long enough to have
    // their whole burst again; call now and then.
    void ForgetQuietGroups(qint64 nowMs);

    int Total() const { return hosts.Count(); }
    int Pending() const { return pending.Count(); }
    int HeldBy(const Group &host) const { return hosts.Size(host); }
    int PendingIn(const Group &network) const { return pending.Size(network); }

private:
    struct Entry
    {
        Groups groups;
        ConnectionProgress progress;
        quint64 order;
    };
    using Rank = std::tuple<ConnectionProgress, quint64, Id>;

    // Groups by number of members, the biggest last; among equals, the one
    // that grew last, so that a newcomer cannot make an older group pay by
    // matching its size (nor a group pay for its address value).
    class Sizes
    {
    public:
        void Change(const Group &group, int from, int to);
        // The empty index has none.
        const Group &Biggest() const { return std::get<2>(*bySize.rbegin()); }
        int BiggestSize() const { return bySize.empty() ? 0 : std::get<0>(*bySize.rbegin()); }

    private:
        std::set<std::tuple<int, quint64, Group>> bySize;
        // When each group last grew.
        std::map<Group, quint64> grewAt;
        quint64 nextGrowth = 0;
    };

    // Members of each group by rank, and the groups by size.
    class Ledger
    {
    public:
        void Add(const Group &group, const Rank &rank);
        // False when it was not there.
        bool Remove(const Group &group, const Rank &rank);
        int Size(const Group &group) const;
        int Count() const { return count; }
        const Group &Biggest() const { return sizes.Biggest(); }
        int BiggestSize() const { return sizes.BiggestSize(); }
        const Rank &Least(const Group &group) const { return *members.at(group).begin(); }

    private:
        std::map<Group, std::set<Rank>> members;
        Sizes sizes;
        int count = 0;
    };

    // Unfinished connections per network, and within each per host: a
    // network that must pay does so from its busiest host, so that one host's
    // stalled connections cannot make a neighbour's handshake the one closed.
    class PendingLedger
    {
    public:
        void Add(const Groups &groups, const Rank &rank);
        void Remove(const Groups &groups, const Rank &rank);
        int Size(const Group &network) const;
        int Count() const { return count; }
        const Group &Biggest() const { return sizes.Biggest(); }
        int BiggestSize() const { return sizes.BiggestSize(); }
        // The least advanced of the network's busiest host.
        const Rank &Least(const Group &network) const;

    private:
        std::map<Group, Ledger> networks;
        Sizes sizes;
        int count = 0;
    };

    // New connections per group, a token bucket each.
    class Allowance
    {
    public:
        Allowance(int perSecond, int burst) : perSecond(perSecond), burst(burst) {}
        bool Take(const Group &group, qint64 nowMs);
        void ForgetQuiet(qint64 nowMs);

    private:
        struct Bucket
        {
            double tokens;
            qint64 lastMs;
        };
        double Refilled(const Bucket &bucket, qint64 nowMs) const;

        int perSecond;
        int burst;
        std::map<Group, Bucket> buckets;
    };

    bool MakeHostRoom(const Groups &groups, Outcome &outcome);
    void MakePendingRoom(const Groups &groups, Outcome &outcome);
    template <class Book>
    Id LeastAdvanced(Book &book, const Group &group);
    Id LeastAdvancedPending();
    void Close(Id id, std::vector<Id> &closed);
    void Rerank(Id id, ConnectionProgress progress);
    Rank RankOf(Id id, const Entry &entry) const { return Rank(entry.progress, entry.order, id); }

    ProgressOf progressOf;
    int totalLimit = -1;
    quint64 nextOrder = 0;
    std::unordered_map<Id, Entry> entries;
    Ledger hosts;
    PendingLedger pending;
    // Apart, since a host and a network can have the same value.
    Allowance hostRate{HostRatePerSecond, HostBurst};
    Allowance networkRate{RatePerSecond, Burst};
};
