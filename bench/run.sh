#!/usr/bin/env bash
# Benchmarks the Qt session server against the Node.js peer on this machine,
# loopback only, and prints a side-by-side table.
#   bench/run.sh              full run (about five minutes)
#   HOLD_SECONDS=10 bench/run.sh   shorter hold
set -euo pipefail

ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD=${BUILD_DIR:-$ROOT/build-bench}
HOLD=${HOLD_SECONDS:-60}
CLIENTS=${CLIENTS:-10000}
THREADS=${LOAD_THREADS:-1}
OUT=$(mktemp -d)
SERVER_PID=
# A TLS identity of this run's own; the peer serves with the same key pair.
export XDG_DATA_HOME=$OUT/data XDG_CONFIG_HOME=$OUT/config
IDENTITY="$XDG_DATA_HOME/VARNOK Labs/VARNOK Manager"

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
echo "== installing the peer's packages" >&2
(cd "$ROOT/bench/peer" && npm ci --no-audit --no-fund --silent)

# start_server <qt|peer>: starts one server on a free loopback port; sets SERVER_PID and PORT.
start_server() {
    local log=$OUT/$1.server
    if [ "$1" = qt ]; then
        "$BUILD/bench/tarn-bench-server" 0 >"$log" 2>&1 &
    else
        node "$ROOT/bench/peer/server.js" 0 "$IDENTITY/identity.key" "$IDENTITY/identity.crt" >"$log" 2>&1 &
    fi
    SERVER_PID=$!
    for _ in $(seq 100); do
        grep -q '^PORT ' "$log" && break
        sleep 0.1
    done
    PORT=$(awk '/^PORT /{print $2}' "$log")
    [ -n "$PORT" ] || { echo "run.sh: the $1 server did not start" >&2; cat "$log" >&2; exit 1; }
}

run_load() {
    echo "== $1 server" >&2
    start_server "$1"
    timeout 300 "$BUILD/bench/tarn-load" --port "$PORT" --server-pid "$SERVER_PID" \
        --clients "$CLIENTS" --hold-seconds "$HOLD" --threads "$THREADS" >"$OUT/$1.results" || echo "run.sh: tarn-load reported failures against $1" >&2
    # A second client, not built on Qt, for the ping rows.
    timeout 120 node "$ROOT/bench/peer/client.js" "$PORT" >>"$OUT/$1.results" || echo "run.sh: the Node client failed against $1" >&2
    kill "$SERVER_PID"
    wait "$SERVER_PID" 2>/dev/null || true
    SERVER_PID=
}

# The Qt server makes the identity that the peer then uses.
run_load qt
run_load peer

echo "== openssl speed rsa2048, one core" >&2
RSA_SIGNS=$(openssl speed -seconds 3 rsa2048 2>/dev/null | awk '/^rsa 2048 bits/{print $6}')

echo "== manager window" >&2
QT_QPA_PLATFORM=offscreen timeout 200 "$BUILD/bench/tarn-gui-bench" >"$OUT/gui.results" 2>/dev/null || echo "run.sh: window measurement failed" >&2

echo
echo "Machine: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ *//'); load before: $(cut -d' ' -f1-3 /proc/loadavg)"
echo "Load generator: $THREADS client thread(s); $CLIENTS held connections; hold $HOLD s"
echo
awk -v rsa="$RSA_SIGNS" '
    FILENAME ~ /qt.results$/   && $1 == "RESULT" { qt[$2] = $3 }
    FILENAME ~ /peer.results$/ && $1 == "RESULT" { peer[$2] = $3 }
    FILENAME ~ /gui.results$/  && $1 == "RESULT" { gui[$2] = $3 }
    function row(label, key,   q, p) {
        q = qt[key]; p = peer[key]
        printf "| %-44s | %12s | %12s | %7s |\n", label, q, p, (p + 0 != 0 && q != "") ? sprintf("%.2f", q / p) : "-"
    }
    END {
        printf "| %-44s | %12s | %12s | %7s |\n", "Measure", "Qt TarnSrv", "Node ws", "Qt/Node"
        printf "|%s|%s|%s|%s|\n", "----------------------------------------------", "--------------:", "--------------:", "--------:"
        row("Handshakes/s, first 1,000", "handshake_per_s")
        row("Handshakes/s, 1,000 to 10,000", "handshake_to_full_per_s")
        row("Server CPU us per handshake, first 1,000", "handshake_server_cpu_us")
        row("Server CPU us per handshake, to 10,000", "handshake_to_full_server_cpu_us")
        printf "| %-44s | %12s | %12s | %7s |\n", "openssl rsa2048 signs/s, one core", rsa, rsa, "-"
        row("Pings/s, N=1", "ping_1_per_s")
        row("Ping p50 us, N=1", "ping_1_p50_us")
        row("Ping p99 us, N=1", "ping_1_p99_us")
        row("Ping p99.9 us, N=1", "ping_1_p999_us")
        row("Pings/s, N=100", "ping_100_per_s")
        row("Ping p50 us, N=100", "ping_100_p50_us")
        row("Ping p99 us, N=100", "ping_100_p99_us")
        row("Ping p99.9 us, N=100", "ping_100_p999_us")
        row("Pings/s, N=1000", "ping_1000_per_s")
        row("Ping p50 us, N=1000", "ping_1000_p50_us")
        row("Ping p99 us, N=1000", "ping_1000_p99_us")
        row("Ping p99.9 us, N=1000", "ping_1000_p999_us")
        row("Node client: open 1,000 connections, s", "node_open_1000_s")
        row("Node client: pings/s, N=1", "node_ping_1_per_s")
        row("Node client: pings/s, N=100", "node_ping_100_per_s")
        row("Node client: pings/s, N=1000", "node_ping_1000_per_s")
        row("Node client: ping p99 us, N=1000", "node_ping_1000_p99_us")
        row("Active clients p50 us, 100 sessions", "active_100_p50_us")
        row("Active clients p50 us, 10,000 sessions", "active_p50_us")
        row("Active clients p99 us, 10,000 sessions", "active_p99_us")
        row("Entries listed", "active_entries")
        row("Server RSS kB, 0 connections", "rss_0_kb")
        row("Server RSS kB, 1,000 idle", "rss_1k_kb")
        row("Server RSS kB, 10,000 idle", "rss_full_kb")
        row("RSS kB per idle connection", "rss_per_conn_kb")
        row("Hold: connections dropped", "hold_client_drops")
        row("Hold: clients still listed", "hold_listed")
        row("Hold: server heartbeats received", "hold_server_beats")
        printf "\nManager window (offscreen): %s rows shown %s s after 1,000 clients began connecting (clients connected in %s s)\n",
               gui["gui_rows_shown"], gui["gui_absorb_s"], gui["gui_clients_connected_s"]
    }' "$OUT/qt.results" "$OUT/peer.results" "$OUT/gui.results"
