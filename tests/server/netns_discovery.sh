#!/usr/bin/env bash
# Discovery across two private test hosts.
#   netns_discovery.sh PROBE [HOLD_UDP_PORT] [-- DETECT_COMMAND...]
# The server host runs "PROBE serve"; the client host runs DETECT_COMMAND
# (default "PROBE detect"), whose output must be exactly the server's URL. A
# DETECT_COMMAND is `tarn discover`: its line adds the fingerprint the server
# logged and "new", as nothing is known yet.
set -u
source "$(dirname "$0")/netns_hosts.sh"

probe=$1; shift
hold=""
if [ $# -gt 0 ] && [ "$1" != "--" ]; then hold=$1; shift; fi
[ "${1:-}" = "--" ] && shift
detect=("$@")
[ ${#detect[@]} -gt 0 ] || detect=("$probe" detect)

port=50443
start_responder "$probe" serve "$port" $hold
found=$(on_client "${detect[@]}")
expected="wss://$srv_addr:$port"
if [ "${detect[0]}" != "$probe" ]; then
    fingerprint=$(sed -n 's/^TLS certificate SHA-256 fingerprint: //p' "$out/srv")
    expected="$expected  ${fingerprint:-<none logged>}  new"
fi
expect_found "$found" "$expected"
