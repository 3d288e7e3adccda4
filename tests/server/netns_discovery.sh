#!/usr/bin/env bash
# Discovery across two private test hosts: network namespaces joined by a veth
# pair, so no broadcast ever reaches the machine's own network.
#   netns_discovery.sh PROBE [HOLD_UDP_PORT] [-- DETECT_COMMAND...]
# The responder host runs "PROBE serve"; the detector host runs DETECT_COMMAND
# (default "PROBE detect"), whose output must be exactly the responder's URL.
set -u

if [ "$(id -u)" -ne 0 ]; then
    echo "SKIP: creating network namespaces needs root"
    exit 77
fi
command -v ip >/dev/null || { echo "SKIP: iproute2 is not installed"; exit 77; }

probe=$1; shift
hold=""
if [ $# -gt 0 ] && [ "$1" != "--" ]; then hold=$1; shift; fi
[ "${1:-}" = "--" ] && shift
detect=("$@")
[ ${#detect[@]} -gt 0 ] || detect=("$probe" detect)

tag="$$"
ns_srv="tarn-test-$tag-srv"
ns_clt="tarn-test-$tag-clt"
veth_srv="tv${tag}s"
veth_clt="tv${tag}c"
srv_addr=10.77.0.1
clt_addr=10.77.0.2
port=50443
out=$(mktemp -d)

cleanup() {
    for ns in "$ns_srv" "$ns_clt"; do
        ip netns pids "$ns" 2>/dev/null | xargs -r kill -9 2>/dev/null
        ip netns del "$ns" 2>/dev/null
    done
    ip link del "$veth_srv" 2>/dev/null
    rm -rf "$out"
}
trap cleanup EXIT

set -e
ip netns add "$ns_srv"
ip netns add "$ns_clt"
ip link add "$veth_srv" type veth peer name "$veth_clt"
ip link set "$veth_srv" netns "$ns_srv"
ip link set "$veth_clt" netns "$ns_clt"
ip -n "$ns_srv" addr add "$srv_addr/24" dev "$veth_srv"
ip -n "$ns_clt" addr add "$clt_addr/24" dev "$veth_clt"
for ns in "$ns_srv" "$ns_clt"; do ip -n "$ns" link set lo up; done
ip -n "$ns_srv" link set "$veth_srv" up
ip -n "$ns_clt" link set "$veth_clt" up
# The limited broadcast needs a route out of the detector's host.
ip -n "$ns_clt" route add 255.255.255.255/32 dev "$veth_clt"
set +e

ip netns exec "$ns_srv" "$probe" serve "$port" $hold >"$out/srv" 2>&1 &
for _ in $(seq 50); do
    grep -q listening "$out/srv" && break
    sleep 0.1
done
grep -q listening "$out/srv" || { echo "FAIL: responder did not start"; cat "$out/srv"; exit 1; }

found=$(ip netns exec "$ns_clt" "${detect[@]}")
expected="wss://$srv_addr:$port"
if [ "$found" != "$expected" ]; then
    echo "FAIL: detector found '$found', expected '$expected'"
    exit 1
fi
echo "PASS: detector found $found"
