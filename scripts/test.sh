#!/usr/bin/env bash
# Installs what is missing, builds everything and runs the whole test suite.
# TARN_QT_MAJOR picks Qt 5 (default) or 6, TARN_BUILD_DIR the build directory
# (default build), e.g. TARN_QT_MAJOR=6 TARN_BUILD_DIR=build-qt6.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
build=${TARN_BUILD_DIR:-build}
cmake -S . -B "$build" -G Ninja -DTARN_QT_MAJOR="${TARN_QT_MAJOR:-5}"
cmake --build "$build" --parallel "$(nproc)"
cd "$build"
QT_QPA_PLATFORM=offscreen ctest --output-on-failure --timeout 600
