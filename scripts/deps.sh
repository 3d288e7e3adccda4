#!/usr/bin/env bash
# Installs the Debian/Ubuntu packages the build and the tests need, only when missing.
# TARN_QT_MAJOR=6 adds the Qt 6 packages; Qt 5 stays, the Windows and package builds use it.
set -euo pipefail

packages=(
    cmake ninja-build g++ pkg-config openssl iproute2 dpkg-dev file
    # systemd-analyze rates the packaged unit's sandbox.
    systemd
    qtbase5-dev qtbase5-dev-tools libqt5websockets5-dev
    # The TLS identity is made with libcrypto.
    libssl-dev
    g++-mingw-w64-x86-64-posix mingw-w64-x86-64-dev
    # scripts/fuzz.sh: clang with libFuzzer and the sanitizer runtimes (LeakSanitizer
    # included); llvm brings llvm-symbolizer for readable reports.
    clang libclang-rt-14-dev llvm
    # A TLS scanner checks the manager's protocols, suites and known weaknesses.
    testssl.sh
)
if [ "${TARN_QT_MAJOR:-5}" = 6 ]; then
    # Qt 6's CMake package looks for OpenGL when Qt Gui is found.
    packages+=(qt6-base-dev qt6-base-dev-tools qt6-websockets-dev libgl-dev)
fi

missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
echo "Installing: ${missing[*]}"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
