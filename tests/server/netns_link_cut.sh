#!/usr/bin/env bash
# Clients on another host lose their link: no FIN, no RST, only silence. With
# the heartbeat shortened to 200 ms, the server drops each client on its fourth
# silent tick and each client reports the loss once.
#   netns_link_cut.sh PROBE
set -u
source "$(dirname "$0")/netns_hosts.sh"
probe=$1
clients=3

TARN_TEST_HEARTBEAT_MS=200 start_responder "$probe" serve 50443
TARN_TEST_HEARTBEAT_MS=200 on_client "$probe" hold "wss://$srv_addr:50443" "$clients" >"$out/clt" 2>&1 &
holder=$!
wait_for "$out/clt" connected

ip -n "$ns_clt" link set "$veth_clt" down
wait "$holder"
status=$?
# Both sides count the same ticks; the server may log its last drop just after
# the clients end.
count_dropped() { grep -c 'is unreachable and was disconnected' "$out/srv"; }
for _ in $(seq 20); do [ "$(count_dropped)" -ge "$clients" ] && break; sleep 0.1; done
dropped=$(count_dropped)
lost=$(grep -c '^lost$' "$out/clt")
echo "server dropped $dropped, clients reported $lost lost"
[ "$status" -eq 0 ] && [ "$dropped" -eq "$clients" ] && [ "$lost" -eq "$clients" ] \
    || { echo "FAIL"; cat "$out/srv" "$out/clt"; exit 1; }
echo "PASS: link cut detected on both sides"
