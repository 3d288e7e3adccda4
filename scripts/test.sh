#!/usr/bin/env bash
# Installs what is missing, builds everything and runs the whole test suite.
# TARN_BUILD_DIR names the build directory (default build), TARN_QT_MAJOR the
# Qt major, 5 or 6 (unset: the directory's choice, Qt 5 for a new one), e.g.
# TARN_QT_MAJOR=6 TARN_BUILD_DIR=build-qt6.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
build=${TARN_BUILD_DIR:-build}
# A folder configured before keeps its generator.
generator=(-G Ninja)
[ -f "$build/CMakeCache.txt" ] && generator=()
cmake -S . -B "$build" "${generator[@]}" ${TARN_QT_MAJOR:+-DTARN_QT_MAJOR="$TARN_QT_MAJOR"}
cmake --build "$build" --parallel "$(nproc)"
cd "$build"
QT_QPA_PLATFORM=offscreen ctest --output-on-failure --timeout 600
