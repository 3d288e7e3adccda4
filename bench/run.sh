#!/usr/bin/env bash
# Benchmarks the Qt session server against two peers on this machine, Node.js
# with ws and Bun's own WebSocket server, loopback only: three rounds, each
# server once a round, and a table of the medians with their spread.
#   bench/run.sh                   full run (about twenty minutes)
#   HOLD_SECONDS=10 ROUNDS=1 bench/run.sh   a quick look
set -euo pipefail

ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD=${BUILD_DIR:-$ROOT/build-bench}
HOLD=${HOLD_SECONDS:-60}
CLIENTS=${CLIENTS:-10000}
THREADS=${LOAD_THREADS:-1}
ROUNDS=${ROUNDS:-3}
OUT=$(mktemp -d)
SERVER_PID=
# A TLS identity of this run's own; the peers serve with the same key pair.
export XDG_DATA_HOME=$OUT/data XDG_CONFIG_HOME=$OUT/config
IDENTITY="$XDG_DATA_HOME/VARNOK Labs/VARNOK Manager"
BUN=$ROOT/bench/peer/node_modules/@oven/bun-linux-x64/bin/bun

cleanup() {
    if [ -n "$SERVER_PID" ]; then kill "$SERVER_PID" 2>/dev/null || true; fi
    rm -rf "$OUT"
}
trap cleanup EXIT

# Each side holds 10,000 sockets plus its own descriptors.
ulimit -n "$(ulimit -Hn)"
if [ "$(ulimit -n)" -lt $((CLIENTS + 1000)) ]; then
    echo "run.sh: the descriptor limit $(ulimit -n) is too low for $CLIENTS connections" >&2
    exit 1
fi

echo "== building (Release) in $BUILD" >&2
cmake -S "$ROOT" -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$BUILD" --parallel 2 --target tarn-load tarn-bench-server tarn-gui-bench >/dev/null
echo "== installing the peers' packages (ws, Bun)" >&2
(cd "$ROOT/bench/peer" && npm ci --no-audit --no-fund --silent)
[ -x "$BUN" ] || { echo "run.sh: Bun is not installed at $BUN" >&2; exit 1; }

# start_server <qt|node|bun>: starts one server on a free loopback port; sets SERVER_PID and PORT.
start_server() {
    local log=$OUT/$1.server
    local keys=("$IDENTITY/identity.key" "$IDENTITY/identity.crt")
    case $1 in
        qt) "$BUILD/bench/tarn-bench-server" 0 >"$log" 2>&1 & ;;
        node) node "$ROOT/bench/peer/server.js" 0 "${keys[@]}" >"$log" 2>&1 & ;;
        bun) "$BUN" "$ROOT/bench/peer/bunserver.js" 0 "${keys[@]}" >"$log" 2>&1 & ;;
    esac
    SERVER_PID=$!
    for _ in $(seq 100); do
        grep -q '^PORT ' "$log" && break
        sleep 0.1
    done
    PORT=$(awk '/^PORT /{print $2}' "$log")
    [ -n "$PORT" ] || { echo "run.sh: the $1 server did not start" >&2; cat "$log" >&2; exit 1; }
}

# run_load <server> <round>: tarn-load, then the Node client, against one server.
run_load() {
    local results=$OUT/$1.$2.results
    echo "== round $2: $1 server" >&2
    start_server "$1"
    timeout 300 "$BUILD/bench/tarn-load" --port "$PORT" --server-pid "$SERVER_PID" \
        --clients "$CLIENTS" --hold-seconds "$HOLD" --threads "$THREADS" >"$results" || echo "run.sh: tarn-load reported failures against $1" >&2
    # A second client, not built on Qt, for the ping rows.
    timeout 120 node "$ROOT/bench/peer/client.js" "$PORT" >>"$results" || echo "run.sh: the Node client failed against $1" >&2
    kill "$SERVER_PID"
    wait "$SERVER_PID" 2>/dev/null || true
    SERVER_PID=
}

# Round 1 starts with the Qt server, which makes the identity the peers then
# use; the order turns each round, so that no server always runs first.
for round in $(seq "$ROUNDS"); do
    case $(( round % 3 )) in
        1) order="qt node bun" ;;
        2) order="node bun qt" ;;
        0) order="bun qt node" ;;
    esac
    for server in $order; do run_load "$server" "$round"; done
done

echo "== openssl speed ecdsap256 (the identity's signature), one core" >&2
ECDSA_SIGNS=$(openssl speed -seconds 3 ecdsap256 2>/dev/null | awk '/ecdsa \(nistp256\)/{print $(NF-1)}')

echo "== manager window" >&2
# A lock of its own: a manager running on this machine must not refuse it.
QT_QPA_PLATFORM=offscreen TARN_INSTANCE_LOCK=$OUT/instance.lock timeout 200 "$BUILD/bench/tarn-gui-bench" >"$OUT/gui.results" 2>/dev/null || echo "run.sh: window measurement failed" >&2

echo
echo "Machine: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ *//'); load before: $(cut -d' ' -f1-3 /proc/loadavg)"
echo "Load generator: $THREADS client thread(s); $CLIENTS held connections; hold $HOLD s; $ROUNDS rounds"
echo "Each cell: the median of the rounds, and in brackets the lowest and highest."
echo
awk -v ecdsa="$ECDSA_SIGNS" '
    FILENAME ~ /gui.results$/ && $1 == "RESULT" { gui[$2] = $3; next }
    $1 == "RESULT" { np = split(FILENAME, part, "/"); split(part[np], name, "."); n = ++count[name[1], $2]; v[name[1], $2, n] = $3 }
    function median(server, key,   n, i, j, t, a) {
        n = count[server, key]
        for (i = 1; i <= n; i++) a[i] = v[server, key, i] + 0
        for (i = 1; i <= n; i++) for (j = i + 1; j <= n; j++) if (a[j] < a[i]) { t = a[i]; a[i] = a[j]; a[j] = t }
        lo[server] = a[1]; hi[server] = a[n]
        return n % 2 ? a[(n + 1) / 2] : (a[n / 2] + a[n / 2 + 1]) / 2
    }
    function num(x) { return x >= 1000 || x == int(x) ? sprintf("%.0f", x) : sprintf("%.3g", x) }
    function cell(server, key,   m) {
        if (!count[server, key]) return "-"
        m = median(server, key)
        return count[server, key] > 1 ? num(m) " (" num(lo[server]) "-" num(hi[server]) ")" : num(m)
    }
    function row(label, key,   q, p) {
        q = count["qt", key] ? median("qt", key) : ""; p = count["node", key] ? median("node", key) : 0
        printf "| %-44s | %22s | %22s | %22s | %7s |\n", label, cell("qt", key), cell("node", key), cell("bun", key),
               (p + 0 != 0 && q != "") ? sprintf("%.2f", q / p) : "-"
    }
    END {
        printf "| %-44s | %22s | %22s | %22s | %7s |\n", "Measure", "Qt TarnSrv", "Node ws", "Bun", "Qt/Node"
        printf "|%s|%s|%s|%s|%s|\n", "----------------------------------------------", "-----------------------:", "-----------------------:", "-----------------------:", "--------:"
        row("Server CPU us per handshake, first 1,000", "handshake_server_cpu_us")
        row("Server CPU us per handshake, to 10,000", "handshake_to_full_server_cpu_us")
        row("RSS kB per idle connection", "rss_per_conn_kb")
        row("Active clients p99 us, 10,000 sessions", "active_p99_us")
        row("Reconnect storm: server CPU us, resumed", "storm_resumed_server_cpu_us")
        row("Reconnect storm: server CPU us, full", "storm_full_server_cpu_us")
        row("Active clients p50 us, 10,000 sessions", "active_p50_us")
        row("Active clients p50 us, 100 sessions", "active_100_p50_us")
        row("Server RSS kB, 0 connections", "rss_0_kb")
        row("Server RSS kB, 1,000 idle", "rss_1k_kb")
        row("Server RSS kB, 10,000 idle", "rss_full_kb")
        row("Handshakes/s, first 1,000", "handshake_per_s")
        row("Handshakes/s, 1,000 to 10,000", "handshake_to_full_per_s")
        printf "| %-44s | %22s | %22s | %22s | %7s |\n", "openssl ECDSA P-256 signs/s, one core", ecdsa, ecdsa, ecdsa, "-"
        row("Pings/s, N=1", "ping_1_per_s")
        row("Ping p50 us, N=1", "ping_1_p50_us")
        row("Ping p99 us, N=1", "ping_1_p99_us")
        row("Pings/s, N=100", "ping_100_per_s")
        row("Ping p99 us, N=100", "ping_100_p99_us")
        row("Pings/s, N=1000", "ping_1000_per_s")
        row("Ping p99 us, N=1000", "ping_1000_p99_us")
        row("Node client: open 1,000 connections, s", "node_open_1000_s")
        row("Node client: pings/s, N=1000", "node_ping_1000_per_s")
        row("Node client: ping p99 us, N=1000", "node_ping_1000_p99_us")
        row("Entries listed", "active_entries")
        row("Hold: connections dropped", "hold_client_drops")
        row("Hold: clients still listed", "hold_listed")
        row("Hold: server heartbeats received", "hold_server_beats")
        printf "\nManager window (offscreen): %s rows shown %s s after 1,000 clients began connecting (clients connected in %s s)\n",
               gui["gui_rows_shown"], gui["gui_absorb_s"], gui["gui_clients_connected_s"]
    }' "$OUT"/*.results "$OUT/gui.results"
