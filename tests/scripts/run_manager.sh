#!/usr/bin/env bash
# scripts/run-manager.sh on a machine without a display: within a bounded time
# the server it leaves answers the `tarn ping` it prints, and Ctrl+C (SIGINT)
# ends it with 0. Loopback only; private settings, identity, lock and port.
#   run_manager.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
source_dir=$1
build=$2
source "$source_dir/scripts/background-job.sh"

port=$("$source_dir/scripts/free-port.sh")
mkdir -p "$work/config"
# There before the job opens it: the loop reads it at once.
: > "$work/out"
# The already built programs: the script only checks that they are up to date.
(unset DISPLAY WAYLAND_DISPLAY QT_QPA_PLATFORM TARN_QT_MAJOR
 export TARN_BUILD_DIR=$build TARN_PORT=$port TMPDIR=$work XDG_CONFIG_HOME=$work/config \
        XDG_DATA_HOME=$work XDG_RUNTIME_DIR=$work TARN_INSTANCE_LOCK=$work/instance.lock
 exec bash "$source_dir/scripts/run-manager.sh" >"$work/out" 2>"$work/err") &
job=$!

deadline=$((SECONDS + 60))
while [ $SECONDS -lt $deadline ]; do
    hint=$(sed -n 's/^Reach it with: //p' "$work/out")
    # The tool pins server keys under its configuration folder: a private one.
    if [ -n "$hint" ] && XDG_CONFIG_HOME="$work/config" $hint >"$work/ping" 2>&1; then
        [ "$hint" = "$build/client/tarn ping wss://127.0.0.1:$port" ] \
            || { echo "FAIL: the script said '$hint'"; exit 1; }
        grep -q "^Stop it with Ctrl+C" "$work/out" || { cat "$work/out"; echo "FAIL: no word on stopping it"; exit 1; }
        kill -INT "$job"
        rc=0
        wait "$job" || rc=$?
        job=""
        [ "$rc" -eq 0 ] || { cat "$work/err"; echo "FAIL: Ctrl+C ended the manager with $rc"; exit 1; }
        grep -q " - Info : Tarn server stopped\.$" "$work/err" \
            || { cat "$work/err"; echo "FAIL: the manager did not stop its server"; exit 1; }
        echo "PASS: answered after $((SECONDS + 60 - deadline)) s: $(cat "$work/ping")"
        exit 0
    fi
    sleep 0.2
done
echo "FAIL: nothing answered on port $port"
cat "$work/out" "$work/err" "$work/ping" 2>/dev/null
exit 1
