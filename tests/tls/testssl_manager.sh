#!/usr/bin/env bash
# A TLS scanner against the real manager, headless, on a private port with a
# private identity and lock: TLS 1.2 and 1.3 only, AEAD suites only, and no
# vulnerability flagged. Loopback only. Skips (77) when testssl is missing.
#   testssl_manager.sh SOURCE_DIR MANAGER
set -euo pipefail
source_dir=$1
program=$2
command -v testssl >/dev/null || { echo "SKIP: testssl is not installed"; exit 77; }
source "$source_dir/scripts/background-job.sh"

port=$("$source_dir/scripts/free-port.sh")
XDG_CONFIG_HOME=$work/config XDG_DATA_HOME=$work XDG_RUNTIME_DIR=$work TARN_INSTANCE_LOCK=$work/lock \
    QT_QPA_PLATFORM=offscreen "$program" --headless --start --port "$port" 2>"$work/manager.log" &
job=$!
for _ in $(seq 100); do
    ss -Htln "sport = :$port" | grep -q . && break
    sleep 0.1
done

# Protocols, every cipher each protocol offers, and the vulnerability checks;
# one line per finding: "id","host","port","severity","finding",...
testssl --quiet --color 0 --warnings off --ip one --csvfile "$work/scan.csv" -p -e -U "127.0.0.1:$port" \
    >"$work/scan.txt" 2>&1 || true
grep -q '^"TLS1_2",.*,"offered' "$work/scan.csv" 2>/dev/null || { cat "$work/scan.txt"; echo "FAIL: no scan result"; exit 1; }

fail=0
expect_none() { # expect_none <description> <lines of the scan that break it>
    if [ -n "$2" ]; then echo "FAIL: $1:"; echo "$2"; fail=1; else echo "PASS: $1"; fi
}
expect_none "no protocol below TLS 1.2" "$(grep -E '^"(SSLv2|SSLv3|TLS1|TLS1_1)",("[^"]*",){3}"offered' "$work/scan.csv")"
expect_none "AEAD suites only" "$(grep '^"cipher_' "$work/scan.csv" | grep -vE ' (AESGCM|ChaCha20) ')"
expect_none "no vulnerability flagged" "$(grep -E '^("[^"]*",){3}"(LOW|MEDIUM|HIGH|CRITICAL)"' "$work/scan.csv")"
grep -q '^"cipher_xc02b"' "$work/scan.csv" && echo "PASS: TLS 1.2 offers ECDHE-ECDSA-AES128-GCM-SHA256" \
    || { echo "FAIL: TLS 1.2 lacks ECDHE-ECDSA-AES128-GCM-SHA256"; fail=1; }
exit $fail
