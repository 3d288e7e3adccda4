#!/usr/bin/env bash
# Installs the Debian/Ubuntu packages the build and the tests need, only when missing.
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
)

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
