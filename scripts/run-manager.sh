#!/usr/bin/env bash
# Installs what is missing, builds the manager TarnSrv and starts it. When it
# would run without a window (no display, --headless, or a build configured
# with TARN_GUI=OFF; TarnSrv --run-mode says which), it runs headless: the server started
# on port $TARN_PORT (50443 unless given, or the --port among the arguments),
# the log on the terminal as well as in its TarnSrvSvc.html.
# Arguments go to TarnSrv.
# TARN_QT_MAJOR and TARN_BUILD_DIR as for scripts/test.sh.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
build=${TARN_BUILD_DIR:-build}
# A folder configured before keeps its generator.
generator=(-G Ninja)
[ -f "$build/CMakeCache.txt" ] && generator=()
cmake -S . -B "$build" "${generator[@]}" ${TARN_QT_MAJOR:+-DTARN_QT_MAJOR="$TARN_QT_MAJOR"} >/dev/null
cmake --build "$build" --parallel "$(nproc)" --target TarnSrv tarn
program=$build/app/TarnSrv
# The program's own rule decides; asked here only to start its server and say
# how to reach it when it runs without a window.
if [ "$("$program" --run-mode "$@")" = window ]; then
    exec "$program" "$@"
fi
port=${TARN_PORT:-50443}
args=("$@")
for i in "${!args[@]}"; do
    case ${args[$i]} in
        --port) port=${args[$((i + 1))]:-$port} ;;
        --port=*) port=${args[$i]#--port=} ;;
    esac
done
echo "TarnSrv runs without a window and serves on port $port."
echo "Reach it with: $build/client/tarn ping wss://127.0.0.1:$port"
echo "Stop it with Ctrl+C. Its log also goes to TarnSrvSvc.html in its log folder."
exec "$program" --headless --start --port "$port" "$@"
