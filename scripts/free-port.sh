#!/usr/bin/env bash
# Prints a TCP port that nothing listens on, below the kernel's ephemeral range:
# a port in that range may be the local end of any outgoing connection, which
# makes a later listen on it fail.
set -euo pipefail
read -r low _ </proc/sys/net/ipv4/ip_local_port_range
first=10000
span=$((low - first))
port=$((first + (RANDOM * 32768 + RANDOM) % span))
for _ in $(seq "$span"); do
    if ! ss -Htln "sport = :$port" | grep -q .; then
        echo "$port"
        exit 0
    fi
    port=$((first + (port - first + 1) % span))
done
echo "free-port.sh: no free port below $low" >&2
exit 1
