#!/usr/bin/env bash
# Installs what is missing, builds the manager TarnSrv and starts it. Without a
# display it runs on Qt's offscreen platform: no window, but the server runs and
# logs to TarnSrvSvc.html next to the program. Arguments go to TarnSrv.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
build=${TARN_BUILD_DIR:-build}
cmake -S . -B "$build" -G Ninja
cmake --build "$build" --parallel "$(nproc)" --target TarnSrv
if [ -z "${DISPLAY:-}${WAYLAND_DISPLAY:-}" ] && [ -z "${QT_QPA_PLATFORM:-}" ]; then
    export QT_QPA_PLATFORM=offscreen
    echo "No display found: running TarnSrv offscreen; its log is $build/gui/TarnSrvSvc.html"
fi
exec "$build/gui/TarnSrv" "$@"
