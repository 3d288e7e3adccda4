#!/usr/bin/env bash
# No program may carry a private key: each installation makes its own.
#   no_private_key.sh PROGRAM...
set -euo pipefail
status=0
for program in "$@"; do
    [ -f "$program" ] || { echo "FAIL: $program was not built"; status=1; continue; }
    if grep -a -q -E -- '-----BEGIN ([A-Z]+ )?PRIVATE KEY-----' "$program"; then
        echo "FAIL: $program contains a PEM private key"
        status=1
    fi
done
[ $status -eq 0 ] && echo "PASS: no PEM private key in $# programs"
exit $status
