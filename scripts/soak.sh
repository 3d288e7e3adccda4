#!/usr/bin/env bash
# Soak: 500 clients connecting, pinging and disconnecting continuously against
# the session server (loopback only) for SOAK_SECONDS (default 600).
# Passes when no cycle failed, the server still runs, its registry is empty
# afterwards, its memory is within 15% of the baseline and grew by at most 5%
# in the second half, and no descriptor leaked.
# The baseline is taken after a short warm-up round, once Qt and OpenSSL have
# made their one-time allocations.
# The server runs without its window: the manager's log view keeps every line
# until the operator clears it, about a kilobyte a line, which is the view's
# cost and not the server's (docs/RELIABILITY.md).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
seconds=${SOAK_SECONDS:-600}
clients=${SOAK_CLIENTS:-500}
build=${TARN_BUILD_DIR:-build}
cmake -S . -B "$build" -G Ninja >/dev/null
cmake --build "$build" --parallel "$(nproc)" --target tarn-bench-server soak_driver tarn

source "scripts/background-job.sh"
ulimit -n 8192
# A TLS identity and known servers of this run's own.
export XDG_DATA_HOME=$work/data XDG_CONFIG_HOME=$work/config

port=$(bash scripts/free-port.sh)
"$build/bench/tarn-bench-server" "$port" >"$work/srv.log" 2>&1 &
job=$!
tarn="$build/client/tarn"
for _ in $(seq 50); do "$tarn" ping "wss://127.0.0.1:$port" >/dev/null 2>&1 && break; sleep 0.2; done

rss() { awk '/^VmRSS:/ {print $2}' "/proc/$job/status"; }
fds() { ls "/proc/$job/fd" | wc -l; }
# The server deletes each connection as it ends and returns freed memory a
# second after a burst of them; the wait leaves room for both.
settle() { sleep 7; }

"$build/tests/reliability/soak_driver" "$port" 10 "$clients" >/dev/null
settle
base_rss=$(rss); base_fds=$(fds)

# In two halves: a leak grows in both, while the allocator's pools, still
# filling after the warm-up, level off in the first.
start=$(date +%s)
first=$("$build/tests/reliability/soak_driver" "$port" $(( seconds / 2 )) "$clients") || true
settle
mid_rss=$(rss)
result=$("$build/tests/reliability/soak_driver" "$port" $(( seconds - seconds / 2 )) "$clients") || true
elapsed=$(( $(date +%s) - start ))
settle
end_rss=$(rss); end_fds=$(fds)
listed=$("$tarn" clients "wss://127.0.0.1:$port" --json --name soak-check | grep -c guestName || true)

echo "soak: $first"
echo "soak: $result"
echo "soak: ${elapsed}s, memory ${base_rss} -> ${mid_rss} -> ${end_rss} KiB, descriptors ${base_fds} -> ${end_fds}, clients listed afterwards ${listed} (the checking one)"
fail=0
for half in "$first" "$result"; do
    grep -q ' failures 0 ' <<<"$half" || { echo "FAIL: client cycles failed"; fail=1; }
done
kill -0 "$job" 2>/dev/null || { echo "FAIL: the server died"; fail=1; }
[ "$listed" -eq 1 ] || { echo "FAIL: the registry is not empty"; fail=1; }
[ "$end_rss" -le $(( base_rss * 115 / 100 )) ] || { echo "FAIL: memory grew more than 15%"; fail=1; }
[ "$end_rss" -le $(( mid_rss + base_rss * 5 / 100 )) ] || { echo "FAIL: memory still grew in the second half"; fail=1; }
[ "$end_fds" -le "$base_fds" ] || { echo "FAIL: descriptors leaked"; fail=1; }
[ "$fail" -eq 0 ] && echo "PASS: soak"
exit "$fail"
