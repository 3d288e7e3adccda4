#!/usr/bin/env bash
# Compiles every source of service/ for Windows, syntax only, so the Windows
# paths are checked against Windows' own headers. Exit 77 = skipped.
set -u
src=$1
qt=${2:-/usr/include/x86_64-linux-gnu/qt5}
cxx=x86_64-w64-mingw32-g++-posix
if ! command -v "$cxx" >/dev/null; then
    echo "SKIP: $cxx is not installed (package g++-mingw-w64-x86-64-posix)"
    exit 77
fi
status=0
for f in "$src"/*.cpp; do
    echo "checking $f"
    "$cxx" -fsyntax-only -std=c++17 -DUNICODE -D_UNICODE -Wall -Wextra \
        -I"$src" -isystem "$qt" -isystem "$qt/QtCore" -isystem "$qt/QtNetwork" \
        -isystem /usr/lib/x86_64-linux-gnu/qt5/mkspecs/linux-g++ "$f" || status=1
done
exit $status
