#!/usr/bin/env bash
# Installs what is missing, builds everything and runs the whole test suite.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
build=${TARN_BUILD_DIR:-build}
cmake -S . -B "$build" -G Ninja
cmake --build "$build" --parallel "$(nproc)"
cd "$build"
QT_QPA_PLATFORM=offscreen ctest --output-on-failure --timeout 600
