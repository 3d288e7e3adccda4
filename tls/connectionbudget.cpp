#include "connectionbudget.h"

#include <QHostAddress>

namespace {

constexpr quint64 Ipv4Mapped = Q_UINT64_C(0x0000ffff00000000);

bool IsPending(ConnectionProgress progress)
{
    return progress != ConnectionProgress::Session;
}

} // namespace

ConnectionBudget::Groups ConnectionBudget::GroupsOf(const QHostAddress &address)
{
    bool isIpv4 = false;
    const quint32 ipv4 = address.toIPv4Address(&isIpv4);
    if (isIpv4)
        return {{0, Ipv4Mapped | ipv4}, {0, Ipv4Mapped | (ipv4 & 0xffffff00u)}};
    const Q_IPV6ADDR ipv6 = address.toIPv6Address();
    Group host{0, 0};
    for (int i = 0; i < 8; ++i) {
        host.first = (host.first << 8) | ipv6[i];
        host.second = (host.second << 8) | ipv6[8 + i];
    }
    return {host, {host.first, 0}};
}

ConnectionBudget::ConnectionBudget(ProgressOf progressOf) : progressOf(std::move(progressOf)) {}

ConnectionBudget::Outcome ConnectionBudget::Admit(Id id, const Groups &groups)
{
    Outcome outcome;
    outcome.admitted = MakeHostRoom(groups, outcome);
    if (!outcome.admitted)
        return outcome;
    MakePendingRoom(groups, outcome);
    const Entry entry{groups, ConnectionProgress::Connected, nextOrder++};
    entries.emplace(id, entry);
    hosts.Add(groups.host, RankOf(id, entry));
    pending.Add(groups, RankOf(id, entry));
    return outcome;
}

void ConnectionBudget::Advance(Id id, ConnectionProgress progress)
{
    const auto it = entries.find(id);
    if (it != entries.end() && progress > it->second.progress)
        Rerank(id, progress);
}

void ConnectionBudget::Remove(Id id)
{
    const auto it = entries.find(id);
    if (it == entries.end())
        return;
    const Entry &entry = it->second;
    hosts.Remove(entry.groups.host, RankOf(id, entry));
    if (IsPending(entry.progress))
        pending.Remove(entry.groups, RankOf(id, entry));
    entries.erase(it);
}

void ConnectionBudget::ForgetQuietGroups(qint64 nowMs)
{
    hostRate.ForgetQuiet(nowMs);
    networkRate.ForgetQuiet(nowMs);
}

bool ConnectionBudget::WithinRate(const Groups &groups, qint64 nowMs)
{
    return hostRate.Take(groups.host, nowMs) && networkRate.Take(groups.network, nowMs);
}

bool ConnectionBudget::Allowance::Take(const Group &group, qint64 nowMs)
{
    Bucket &bucket = buckets.emplace(group, Bucket{double(burst), nowMs}).first->second;
    bucket.tokens = Refilled(bucket, nowMs);
    bucket.lastMs = qMax(bucket.lastMs, nowMs);
    if (bucket.tokens < 1)
        return false;
    bucket.tokens -= 1;
    return true;
}

void ConnectionBudget::Allowance::ForgetQuiet(qint64 nowMs)
{
    for (auto it = buckets.begin(); it != buckets.end();)
        it = Refilled(it->second, nowMs) >= burst ? buckets.erase(it) : std::next(it);
}

double ConnectionBudget::Allowance::Refilled(const Bucket &bucket, qint64 nowMs) const
{
    const double elapsedMs = double(qMax<qint64>(0, nowMs - bucket.lastMs));
    return qMin<double>(burst, bucket.tokens + elapsedMs * perSecond / 1000);
}

// The group's least advanced connection, by the progress it has now; 0 when
// all it held turn out to be sessions (only unfinished ones are counted per
// network).
template <class Book>
ConnectionBudget::Id ConnectionBudget::LeastAdvanced(Book &book, const Group &group)
{
    while (book.Size(group) > 0) {
        const Rank least = book.Least(group);
        const Id id = std::get<2>(least);
        const ConnectionProgress now = progressOf(id);
        if (now <= std::get<0>(least))
            return id;
        Rerank(id, now);
    }
    return 0;
}

// The newcomer's host at its share pays itself, unless all it holds are
// sessions, which are worth more than a newcomer. With everyone together at
// the total, an unfinished connection pays first, whoever's it is; only
// when there is none, the busiest host pays with a session, and the
// newcomer is refused if that would be its own.
bool ConnectionBudget::MakeHostRoom(const Groups &groups, Outcome &outcome)
{
    const int own = hosts.Size(groups.host);
    if (own >= MaxPerHost) {
        const Id victim = LeastAdvanced(hosts, groups.host);
        if (!IsPending(entries.at(victim).progress))
            return false;
        Close(victim, outcome.displaced);
        return true;
    }
    if (totalLimit < 0 || hosts.Count() < totalLimit)
        return true;
    if (const Id victim = LeastAdvancedPending()) {
        Close(victim, outcome.displaced);
        return true;
    }
    if (own >= hosts.BiggestSize())
        return false;
    Close(LeastAdvanced(hosts, hosts.Biggest()), outcome.evicted);
    return true;
}

// The newcomer's network at its share pays itself; at the overall budget,
// the network with the most unfinished connections pays, the newcomer's own
// on a tie.
void ConnectionBudget::MakePendingRoom(const Groups &groups, Outcome &outcome)
{
    for (;;) {
        Group payer = groups.network;
        if (pending.Size(payer) < MaxPendingPerNetwork) {
            if (pending.Count() < MaxPending)
                return;
            if (pending.Size(payer) < pending.BiggestSize())
                payer = pending.Biggest();
        }
        if (const Id victim = LeastAdvanced(pending, payer)) {
            Close(victim, outcome.displaced);
            return;
        }
    }
}

// The least advanced unfinished connection of the network with the most;
// 0 when none is unfinished.
ConnectionBudget::Id ConnectionBudget::LeastAdvancedPending()
{
    while (pending.Count() > 0) {
        if (const Id id = LeastAdvanced(pending, pending.Biggest()))
            return id;
    }
    return 0;
}

void ConnectionBudget::Close(Id id, std::vector<Id> &closed)
{
    closed.push_back(id);
    Remove(id);
}

void ConnectionBudget::Rerank(Id id, ConnectionProgress progress)
{
    Entry &entry = entries.at(id);
    hosts.Remove(entry.groups.host, RankOf(id, entry));
    if (IsPending(entry.progress))
        pending.Remove(entry.groups, RankOf(id, entry));
    entry.progress = progress;
    hosts.Add(entry.groups.host, RankOf(id, entry));
    if (IsPending(progress))
        pending.Add(entry.groups, RankOf(id, entry));
}

void ConnectionBudget::Sizes::Change(const Group &group, int from, int to)
{
    quint64 &grew = grewAt[group];
    if (from > 0)
        bySize.erase({from, grew, group});
    if (to > from)
        grew = nextGrowth++;
    if (to > 0)
        bySize.insert({to, grew, group});
    else
        grewAt.erase(group);
}

void ConnectionBudget::Ledger::Add(const Group &group, const Rank &rank)
{
    std::set<Rank> &set = members[group];
    set.insert(rank);
    sizes.Change(group, int(set.size()) - 1, int(set.size()));
    ++count;
}

bool ConnectionBudget::Ledger::Remove(const Group &group, const Rank &rank)
{
    const auto it = members.find(group);
    if (it == members.end() || it->second.erase(rank) == 0)
        return false;
    const int size = int(it->second.size());
    sizes.Change(group, size + 1, size);
    if (size == 0)
        members.erase(it);
    --count;
    return true;
}

int ConnectionBudget::Ledger::Size(const Group &group) const
{
    const auto it = members.find(group);
    return it == members.end() ? 0 : int(it->second.size());
}

void ConnectionBudget::PendingLedger::Add(const Groups &groups, const Rank &rank)
{
    Ledger &network = networks[groups.network];
    network.Add(groups.host, rank);
    sizes.Change(groups.network, network.Count() - 1, network.Count());
    ++count;
}

void ConnectionBudget::PendingLedger::Remove(const Groups &groups, const Rank &rank)
{
    const auto it = networks.find(groups.network);
    if (it == networks.end() || !it->second.Remove(groups.host, rank))
        return;
    const int size = it->second.Count();
    sizes.Change(groups.network, size + 1, size);
    if (size == 0)
        networks.erase(it);
    --count;
}

int ConnectionBudget::PendingLedger::Size(const Group &network) const
{
    const auto it = networks.find(network);
    return it == networks.end() ? 0 : it->second.Count();
}

const ConnectionBudget::Rank &ConnectionBudget::PendingLedger::Least(const Group &network) const
{
    const Ledger &hosts = networks.at(network);
    return hosts.Least(hosts.Biggest());
}
