#!/bin/bash
# Builds the Windows zip, tarn-<version>-win64.zip, and the installer made
# from it, tarn-<version>-win64-setup.exe: the toolchain once per machine
# (scripts/windows-toolchain.sh, as root), then the cross build of
# TarnSrv.exe, TarnSvc.exe, tarn.exe and the helpers of the checks under Wine,
# then `cpack -G ZIP`, then packaging/windows/installer.sh. Prints the
# installer's path last.
#
# Usage: scripts/windows-package.sh [--if-prepared]
#   --if-prepared  exit 77 (skipped) unless the toolchain is ready (for CTest)
# Environment: TARN_WIN_BUILD, the build folder (default <repo>/build-win).
set -euo pipefail
ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD=${TARN_WIN_BUILD:-$ROOT/build-win}

if [ "${1:-}" = --if-prepared ]; then
    bash "$ROOT/scripts/windows-toolchain.sh" --if-ready || exit 77
fi
PREFIX=$(bash "$ROOT/scripts/windows-toolchain.sh" | tail -n 1)
mkdir -p "$BUILD"
cmake -S "$ROOT" -B "$BUILD" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$ROOT/cmake/mingw-w64-x86_64-posix.cmake" \
    -DTARN_WIN_QT_PREFIX="$PREFIX" -DCMAKE_BUILD_TYPE=Release > "$BUILD/configure.log" 2>&1 ||
    { cat "$BUILD/configure.log"; exit 1; }
cmake --build "$BUILD" --parallel "$(nproc)" > "$BUILD/build.log" 2>&1 || { tail -n 60 "$BUILD/build.log"; exit 1; }
# Zero warnings, as on Linux.
if grep -q 'warning:' "$BUILD/build.log"; then
    grep -A 3 'warning:' "$BUILD/build.log"
    echo "windows-package: the cross build has warnings" >&2
    exit 1
fi
rm -f "$BUILD"/tarn-*-win64.zip "$BUILD"/tarn-*-win64-setup.exe
(cd "$BUILD" && cpack -G ZIP > cpack.log 2>&1) || { cat "$BUILD/cpack.log"; exit 1; }
ZIP=$(ls "$BUILD"/tarn-*-win64.zip)
unzip -Z1 "$ZIP" | grep -v '/$' | sort
VERSION=$(basename "$ZIP" -win64.zip)
bash "$ROOT/packaging/windows/installer.sh" "$ZIP" "${VERSION#tarn-}" "$BUILD" | tail -n 1
