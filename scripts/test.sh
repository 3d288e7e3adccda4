#!/usr/bin/env bash
# Installs what is missing, builds everything and runs the whole test suite,
# then builds the manager without its window (TARN_GUI=OFF, in <build>-nogui)
# and runs the tests labelled "windowless" against it.
# TARN_BUILD_DIR names the build directory (default build), TARN_QT_MAJOR the
# Qt major, 5 or 6 (unset: the directory's choice, Qt 5 for a new one), e.g.
# TARN_QT_MAJOR=6 TARN_BUILD_DIR=build-qt6.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
build=${TARN_BUILD_DIR:-build}

# configure DIR [CMAKE OPTIONS...]: a folder configured before keeps its generator.
configure() {
    local dir=$1 generator=(-G Ninja)
    shift
    [ -f "$dir/CMakeCache.txt" ] && generator=()
    cmake -S . -B "$dir" "${generator[@]}" ${TARN_QT_MAJOR:+-DTARN_QT_MAJOR="$TARN_QT_MAJOR"} "$@"
}

configure "$build"
cmake --build "$build" --parallel "$(nproc)"
(cd "$build" && QT_QPA_PLATFORM=offscreen ctest --output-on-failure --timeout 600)

# The windowless build: only the programs and test programs the windowless tests use.
configure "$build-nogui" -DTARN_GUI=OFF
cmake --build "$build-nogui" --parallel "$(nproc)" \
    --target TarnSrv tarn guard_holder tst_runmode tst_instanceguard tst_systemd tst_headless
(cd "$build-nogui" && QT_QPA_PLATFORM=offscreen ctest -L windowless --output-on-failure --timeout 600)
