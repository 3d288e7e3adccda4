#!/usr/bin/env bash
# Spoofed discovery replies flooding a responder, sent to 127.0.0.1 on the
# server host: the responder's memory stays bounded and a detection from the
# client host still finds it.
#   netns_reply_flood.sh PROBE [COUNT] [BYTES]
set -u
source "$(dirname "$0")/netns_hosts.sh"

probe=$1
count=${2:-3000}
bytes=${3:-20000}
max_growth_kb=8192

# Under AddressSanitizer freed datagrams wait in its quarantine (256 MB by
# default), which would read as growth; keep it small for this measurement.
export ASAN_OPTIONS="${ASAN_OPTIONS:+$ASAN_OPTIONS:}quarantine_size_mb=1"

port=50443
start_responder "$probe" serve "$port"
# The responder is the only process on the server host.
pid=$(ip netns pids "$ns_srv")
rss_kb() { awk '/^VmRSS:/ { print $2 }' "/proc/$pid/status"; }

before=$(rss_kb)
ip netns exec "$ns_srv" "$probe" flood 49152 "$count" "$bytes"
found=$(on_client "$probe" detect)
after=$(rss_kb)
echo "responder RSS: $before KiB before, $after KiB after $count replies of $bytes bytes"
if [ -z "$after" ] || [ $((after - before)) -gt $max_growth_kb ]; then
    echo "FAIL: the responder grew by more than $max_growth_kb KiB"
    exit 1
fi
expect_found "$found" "wss://$srv_addr:$port"
