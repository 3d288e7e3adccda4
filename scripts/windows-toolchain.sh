#!/bin/bash
# Prepares the toolchain that builds Tarn for 64-bit Windows and runs its
# checks: mingw-w64, Wine, Xvfb, xdotool and NSIS, and one prefix holding OpenSSL 3 and Qt 5 (Core, Gui, Widgets, Network with
# OpenSSL linked, WebSockets, and the windows, offscreen and windowsvista
# plugins), all cross-built from source. Once per machine: the prefix is kept
# in the cache under a key made of the source versions and the build options
# below, so a change to either builds a new one.
#
# Usage: scripts/windows-toolchain.sh [--prefix | --if-ready]
#   --prefix    print the prefix the current key names and exit
#   --if-ready  exit 77 unless that prefix and the tools are there
#
# Environment:
#   TARN_WIN_CACHE  the cache (default /var/cache/tarn-win)
#   TARN_WIN_JOBS   parallel compile jobs (default: every core)
#
# Sources: qtbase and openssl from Debian's source packages (a deb-src entry
# for the mirror already in use is added when missing), Qt WebSockets from
# the tarball in ../shared/third-party, checked against its SHA256SUMS.
#
# Cold, on this project's two-core machine: 14 minutes (packages 1 min,
# sources 10 s, OpenSSL 2 min, Qt configure and build 10.5 min, WebSockets
# 12 s); warm: 0.04 s.
set -euo pipefail

ROOT=$(cd "$(dirname "$0")/.." && pwd)
CACHE=${TARN_WIN_CACHE:-/var/cache/tarn-win}
JOBS=${TARN_WIN_JOBS:-$(nproc)}
MINGW=x86_64-w64-mingw32
THIRD_PARTY=$ROOT/../shared/third-party
WEBSOCKETS_TARBALL=qtwebsockets-everywhere-src-5.15.8.tar.xz

die() { echo "windows-toolchain: $*" >&2; exit 1; }
step() { echo "== $* ($(date +%T))"; }

# OpenSSL looks for its configuration, engines and modules in folders fixed
# at build time: they go under Program Files, where only administrators write.
# A Unix path would name C:\usr\local\..., which any user may create, and
# a service would load what is put there.
OPENSSL_OPTIONS=(mingw64 shared no-tests --cross-compile-prefix=$MINGW-
    "--prefix=C:/Program Files/OpenSSL" --openssldir=SSL --libdir=lib)
# Only what the product loads: no OpenGL, SQL, D-Bus, printing, XML,
# concurrency, test library or image-format plugins. No tablet events either:
# Debian's source leaves out the Wintab header that the windows plugin needs
# for them.
QT_OPTIONS=(-xplatform win32-g++ -device-option CROSS_COMPILE=$MINGW- -release -shared
    -opensource -confirm-license -nomake examples -nomake tests -no-opengl -no-dbus -no-icu
    -no-feature-sql -no-feature-xml -no-feature-testlib -no-feature-concurrent
    -no-feature-printer -no-feature-direct2d -no-feature-vulkan -no-feature-tuiotouch
    -no-feature-bearermanagement -no-feature-tabletevent -no-gif -no-ico -no-libjpeg
    -qt-pcre -qt-zlib -qt-libpng -qt-freetype -qt-harfbuzz -openssl-linked)

qtbase_version() { dpkg-query -W -f='${Version}' libqt5core5a 2>/dev/null || die "Qt 5 is not installed (scripts/deps.sh)"; }
# The OpenSSL source fetched once stays the one in use, whatever the mirror
# offers later.
openssl_tarball() { ls "$CACHE"/src/openssl_*.orig.tar.gz 2>/dev/null | sort -V | tail -n 1; }
openssl_version() { apt-cache showsrc openssl 2>/dev/null | awk '/^Version:/ {print $2}' | sort -V | tail -n 1; }

# The key: source versions and the options that shape the build.
cache_key() {
    { qtbase_version; basename "$(openssl_tarball)"; cat "$THIRD_PARTY/SHA256SUMS"; echo "${OPENSSL_OPTIONS[*]}" "${QT_OPTIONS[*]}"; } |
        sha256sum | cut -c1-12
}
PREFIX=$CACHE/win64-$(cache_key)
tools_ready() {
    local tool
    for tool in wine wineserver Xvfb xdotool unzip makensis; do command -v $tool >/dev/null || return 1; done
}
ready() { [ -f "$PREFIX/.tarn-complete" ] && tools_ready; }

case "${1:-}" in
    --prefix) echo "$PREFIX"; exit 0 ;;
    --if-ready) ready && exit 0; echo "windows-toolchain: not prepared (run scripts/windows-toolchain.sh)"; exit 77 ;;
    "") ;;
    *) die "usage: $0 [--prefix | --if-ready]" ;;
esac
ready && { echo "$PREFIX"; exit 0; }
[ "$(id -u)" = 0 ] || die "preparing $CACHE needs root (apt)"

install_packages() {
    local missing=() p
    for p in g++-mingw-w64-x86-64-posix mingw-w64-x86-64-dev wine wine64 xvfb xdotool unzip nsis \
             perl python3 make dpkg-dev xz-utils; do
        dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
    done
    [ ${#missing[@]} = 0 ] && return 0
    step "installing ${missing[*]}"
    apt-get update -q >/dev/null
    DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends "${missing[@]}" >/dev/null
}

# A deb-src twin of each deb entry of the system's sources, so that the
# sources come from the mirror and suites already in use.
add_source_entries() {
    grep -rqsE '^(Types:.*deb-src|deb-src )' /etc/apt/sources.list /etc/apt/sources.list.d/ && return 0
    local list=/etc/apt/sources.list.d/debian.sources
    [ -f "$list" ] || die "no deb-src entry and no $list to derive one from"
    awk 'BEGIN { RS = ""; ORS = "\n\n" } /Types: deb/ { sub(/Types: deb/, "Types: deb-src"); print }' "$list" |
        grep -v '^#' > /etc/apt/sources.list.d/tarn-deb-src.sources
    apt-get update -q >/dev/null || die "apt-get update failed"
}

fetch_sources() {
    mkdir -p "$CACHE/src"
    ls "$CACHE"/src/qtbase-opensource-src_*.orig.tar.xz >/dev/null 2>&1 && [ -n "$(openssl_tarball)" ] && return 0
    step "fetching the qtbase and openssl sources"
    add_source_entries
    # Only the upstream tarballs are built, and apt checks each file it gets
    # against the signed index: a Debian patch set the mirror lacks does not
    # stop the build.
    (cd "$CACHE/src" && apt-get source --download-only "qtbase-opensource-src=$(qtbase_version)"
        apt-get source --download-only "openssl=$(openssl_version)") > "$CACHE/download.log" 2>&1 || true
    ls "$CACHE"/src/qtbase-opensource-src_*.orig.tar.xz >/dev/null 2>&1 && [ -n "$(openssl_tarball)" ] ||
        die "cannot fetch the sources, see $CACHE/download.log"
}

# unpack <tarball> <name>: a fresh copy in $CACHE/work/<name>; prints the
# folder the tarball holds.
unpack() {
    local into=$CACHE/work/$2
    rm -rf "$into" && mkdir -p "$into"
    tar -C "$into" -xf "$1" || die "cannot unpack $1"
    echo "$into"/*
}

build_openssl() {
    step "OpenSSL for Windows"
    local src
    src=$(unpack "$(openssl_tarball)" openssl)
    (cd "$src" && ./Configure "${OPENSSL_OPTIONS[@]}" && make -j"$JOBS" build_libs &&
        mkdir -p "$PREFIX"/{bin,lib,include} && cp -r include/openssl "$PREFIX/include/" &&
        cp libssl.dll.a libcrypto.dll.a "$PREFIX/lib/" && cp libssl-3-x64.dll libcrypto-3-x64.dll "$PREFIX/bin/") \
        > "$CACHE/openssl.log" 2>&1 || die "OpenSSL build failed, see $CACHE/openssl.log"
    [ -f "$PREFIX/bin/libssl-3-x64.dll" ] && [ -f "$PREFIX/bin/libcrypto-3-x64.dll" ] || die "OpenSSL install incomplete"
}

build_qtbase() {
    step "Qt for Windows"
    local src
    src=$(unpack "$(ls "$CACHE"/src/qtbase-opensource-src_*.orig.tar.xz)" qtbase)
    mkdir -p "$CACHE/work/build-qt" && cd "$CACHE/work/build-qt"
    "$src/configure" "${QT_OPTIONS[@]}" -prefix "$PREFIX" \
        OPENSSL_INCDIR="$PREFIX/include" OPENSSL_LIBDIR="$PREFIX/lib" \
        OPENSSL_LIBS="-lssl -lcrypto -lws2_32 -lcrypt32 -luser32 -ladvapi32" > "$CACHE/qt-configure.log" 2>&1 ||
        die "Qt configure failed, see $CACHE/qt-configure.log"
    grep -qE 'OpenSSL \.+ yes' "$CACHE/qt-configure.log" || die "Qt found no OpenSSL, see $CACHE/qt-configure.log"
    { make -j"$JOBS" && make install; } > "$CACHE/qt-build.log" 2>&1 || die "Qt build failed, see $CACHE/qt-build.log"
    cd "$ROOT"
}

build_qtwebsockets() {
    step "Qt WebSockets for Windows"
    (cd "$THIRD_PARTY" && sha256sum -c --quiet SHA256SUMS) || die "$THIRD_PARTY does not match its SHA256SUMS"
    local src
    src=$(unpack "$THIRD_PARTY/$WEBSOCKETS_TARBALL" qtwebsockets)
    (cd "$src" && "$PREFIX/bin/qmake" && make -j"$JOBS" && make install) > "$CACHE/qtwebsockets.log" 2>&1 ||
        die "Qt WebSockets build failed, see $CACHE/qtwebsockets.log"
    [ -f "$PREFIX/lib/cmake/Qt5WebSockets/Qt5WebSocketsConfig.cmake" ] || die "Qt WebSockets install incomplete"
}

start=$SECONDS
install_packages
# Qt's win32-g++ mkspec calls <prefix>g++: point that at the posix-thread
# compilers (Debian's plain names are the win32-thread ones).
mkdir -p "$CACHE/bin" "$CACHE/work"
for tool in gcc g++ c++; do ln -sf "/usr/bin/$MINGW-$tool-posix" "$CACHE/bin/$MINGW-$tool"; done
export PATH="$CACHE/bin:$PATH"
fetch_sources
PREFIX=$CACHE/win64-$(cache_key)
ready && { echo "$PREFIX"; exit 0; }
rm -rf "$PREFIX" "$CACHE/work"/*
build_openssl
build_qtbase
build_qtwebsockets
rm -rf "$CACHE/work"
touch "$PREFIX/.tarn-complete"
step "Windows toolchain ready in $PREFIX after $((SECONDS - start)) s"
echo "$PREFIX"
