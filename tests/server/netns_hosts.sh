# Two private test hosts for network tests: network namespaces joined by a veth
# pair (10.77.0.1 serves, 10.77.0.2 is the client), so nothing a test sends
# reaches the machine's own network. Source it; the hosts go when the shell exits.
#   start_responder COMMAND...   runs COMMAND on the server host, waits for "listening"
#   on_client COMMAND...         runs COMMAND on the client host
#   wait_for FILE WORD           waits up to 5 s for WORD in FILE; fails showing FILE
#   expect_found FOUND EXPECTED  fails unless a detection found exactly EXPECTED

if [ "$(id -u)" -ne 0 ]; then
    echo "SKIP: creating network namespaces needs root"
    exit 77
fi
command -v ip >/dev/null || { echo "SKIP: iproute2 is not installed"; exit 77; }

tag="$$"
ns_srv="tarn-test-$tag-srv"
ns_clt="tarn-test-$tag-clt"
veth_srv="tv${tag}s"
veth_clt="tv${tag}c"
srv_addr=10.77.0.1
clt_addr=10.77.0.2
out=$(mktemp -d)
# The programs keep their state (the server's TLS identity, the tool's known
# servers) in the test's folder, not in the caller's home.
export XDG_CONFIG_HOME="$out/config" XDG_DATA_HOME="$out/data"

remove_hosts() {
    for ns in "$ns_srv" "$ns_clt"; do
        ip netns pids "$ns" 2>/dev/null | xargs -r kill -9 2>/dev/null
        ip netns del "$ns" 2>/dev/null
    done
    ip link del "$veth_srv" 2>/dev/null
    rm -rf "$out"
}
trap remove_hosts EXIT

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
# The limited broadcast needs a route out of the client's host.
ip -n "$ns_clt" route add 255.255.255.255/32 dev "$veth_clt"
set +e

wait_for() {
    for _ in $(seq 50); do grep -q "$2" "$1" && return 0; sleep 0.1; done
    echo "FAIL: no '$2' in $1"; cat "$1"; exit 1
}

start_responder() {
    ip netns exec "$ns_srv" "$@" >"$out/srv" 2>&1 &
    wait_for "$out/srv" listening
}

on_client() {
    ip netns exec "$ns_clt" "$@"
}

expect_found() {
    [ "$1" = "$2" ] || { echo "FAIL: detector found '$1', expected '$2'"; exit 1; }
    echo "PASS: detector found $1"
}
