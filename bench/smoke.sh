#!/usr/bin/env bash
# A few seconds' end-to-end check: tarn-load against the headless server on loopback.
# Usage: smoke.sh <tarn-bench-server> <tarn-load>
set -euo pipefail
work=$(mktemp -d)
log=$work/server.log
# The server makes a TLS identity of its own in this run's folder.
XDG_DATA_HOME=$work/data "$1" 0 >"$log" 2>&1 &
server=$!
trap 'kill $server 2>/dev/null || true; rm -rf "$work"' EXIT
for _ in $(seq 50); do
    grep -q '^PORT ' "$log" && break
    sleep 0.1
done
port=$(awk '/^PORT /{print $2}' "$log")
[ -n "$port" ] || { cat "$log" >&2; exit 1; }
timeout 30 "$2" --port "$port" --server-pid "$server" --smoke
