#!/usr/bin/env bash
# Builds the Debian package, unpacks it into a throwaway root and runs the
# programs from there: tarn --version, and TarnSrv as the unit runs it, on the
# port of its TarnSrv.cfg, answering a ping and logging to stderr. The systemd
# unit must start the packaged TarnSrv headless and keep systemd-analyze's
# exposure rating at 4.0 ("OK") or below.
# A build with the window (GUI ON) makes the desktop package "tarn"; one
# without makes "tarn-server", which must neither depend on, link nor map any
# Qt GUI, X11 or GL library.
#   deb_install.sh BUILD_DIR QT_MAJOR GUI
set -euo pipefail
build=$1
qt=$2
gui=$3
source "$(dirname "$0")/../../scripts/background-job.sh"

(cd "$build" && cpack -G DEB -B "$work/pkg" >"$work/cpack.log") || { cat "$work/cpack.log"; exit 1; }
deb=$(ls "$work"/pkg/*.deb)
depends=$(dpkg-deb -f "$deb" Depends)
echo "Depends: $depends"
# The product's package is built with Qt 5; a Qt 6 build's package names Qt 6's libraries.
libs=(libqt5core5a libqt5network5 libqt5websockets5)
[ "$qt" = 6 ] && libs=(libqt6core6 libqt6network6 libqt6websockets6)
# What a desktop stack brings: the windowless package has none of it.
# (Package names in Depends, library file names in ldd and the maps.)
desktop_libs='libqt[56](widgets|gui)|libx11|libxcb|libgl([.1x]|dispatch)|libegl|libopengl'
if [ "$gui" = ON ]; then
    package=tarn other=tarn-server desktop_files=present
    libs+=("$([ "$qt" = 6 ] && echo libqt6widgets6 || echo libqt5widgets5)")
else
    package=tarn-server other=tarn desktop_files=absent
    if grep -Eio "$desktop_libs" <<<"$depends"; then echo "FAIL: the server package depends on the above"; exit 1; fi
fi
for lib in "${libs[@]}"; do
    grep -q "$lib" <<<"$depends" || { echo "FAIL: $lib missing from Depends"; exit 1; }
done
[ "$(dpkg-deb -f "$deb" Package)" = "$package" ] || { echo "FAIL: the package is not named $package"; exit 1; }
for field in Conflicts Replaces; do
    [ "$(dpkg-deb -f "$deb" "$field")" = "$other" ] || { echo "FAIL: $package's $field is not $other"; exit 1; }
done
dpkg-deb --ctrl-tarfile "$deb" | tar -xO ./conffiles | grep -qx /etc/tarn/TarnSrv.cfg \
    || { echo "FAIL: TarnSrv.cfg is not a conffile"; exit 1; }

root=$work/root
dpkg-deb -x "$deb" "$root"
for f in usr/lib/systemd/system/tarn-manager.service usr/share/man/man1/tarn.1; do
    [ -e "$root/$f" ] || { echo "FAIL: $f not in the package"; exit 1; }
done
# The window's entry and icon come with the window only.
for f in usr/share/applications/tarn-manager.desktop usr/share/icons/hicolor/32x32/apps/tarn.png; do
    if [ -e "$root/$f" ]; then found=present; else found=absent; fi
    [ "$found" = "$desktop_files" ] || { echo "FAIL: $f is $found in $package"; exit 1; }
done

unit=$root/usr/lib/systemd/system/tarn-manager.service
read -r program unit_args <<<"$(sed -n 's/^ExecStart=//p' "$unit")"
[ -x "$root$program" ] || { echo "FAIL: the unit starts $program, which is not in the package"; exit 1; }
# A GUI library the program links would be loaded at start, window or not.
linked=$(ldd "$root$program" | grep -Eic "$desktop_libs" || true)
echo "Qt GUI, X11 and GL libraries $program links: $linked"
if [ "$gui" = OFF ] && [ "$linked" != 0 ]; then ldd "$root$program"; echo "FAIL: the server's TarnSrv links them"; exit 1; fi
# Headless, the log reaches the journal; an explicit start that fails fails the unit.
[[ " $unit_args " == *" --headless "* && " $unit_args " == *" --start "* ]] \
    || { echo "FAIL: the unit runs '$program $unit_args', not headless with --start"; exit 1; }
if systemd-analyze --help 2>/dev/null | grep -q -- --offline; then
    systemd-analyze security --offline=true "$unit" >"$work/security" 2>&1 || true
    exposure=$(sed -n 's/.*Overall exposure level for [^:]*: \([0-9.]*\) .*/\1/p' "$work/security")
    awk -v e="$exposure" 'BEGIN { exit !(e != "" && e <= 4.0) }' \
        || { cat "$work/security"; echo "FAIL: the unit's exposure is '$exposure', above 4.0"; exit 1; }
    echo "Unit exposure: $exposure"
else
    echo "SKIP: this systemd-analyze cannot rate a unit file offline; the unit's exposure is not checked"
fi

version=$("$root/usr/bin/tarn" --version)
[[ "$version" =~ ^tarn\ [0-9]+\.[0-9]+\.[0-9]+$ ]] || { echo "FAIL: tarn --version said '$version'"; exit 1; }


port=$("$(dirname "$0")/../../scripts/free-port.sh")
mkdir -p "$work/log" "$work/config"
printf 'PortNr = %s\nLoggingFolder = %s\n' "$port" "$work/log" >"$root/etc/tarn/TarnSrv.cfg"
# As the unit runs it: systemd names its state directory, where the first start
# makes the TLS identity, and the umask is the unit's.
grep -qx 'StateDirectory=tarn' "$unit" || { echo "FAIL: the unit has no state directory"; exit 1; }
state=$work/state/tarn
export XDG_CONFIG_HOME="$work/config"
# shellcheck disable=SC2086 # the unit's arguments, split as systemd does
(umask "$(sed -n 's/^UMask=//p' "$unit")"
 unset DISPLAY WAYLAND_DISPLAY QT_QPA_PLATFORM
 STATE_DIRECTORY="$state" TARN_INSTANCE_LOCK="$work/instance.lock" XDG_RUNTIME_DIR="$work" \
    exec "$root/usr/bin/TarnSrv" $unit_args >"$work/srv.log" 2>&1) &
job=$!
# A loaded machine (ctest -j2 beside a Windows build) can take its time.
deadline=$((SECONDS + 60))
while [ $SECONDS -lt $deadline ]; do
    if "$root/usr/bin/tarn" ping "wss://127.0.0.1:$port" >"$work/ping" 2>&1; then
        cat "$work/ping"
        grep -q "Tarn server started on port $port" "$work/log/TarnSrvSvc.html" \
            || { echo "FAIL: no log in the configured folder"; exit 1; }
        grep -q " - Info : Tarn server started on port $port\.$" "$work/srv.log" \
            || { cat "$work/srv.log"; echo "FAIL: the log lines do not reach stderr, so not the journal"; exit 1; }
        [ "$(stat -c %a "$state/identity.key")" = 600 ] \
            || { echo "FAIL: no owner-only TLS key in the state directory"; ls -la "$state"; exit 1; }
        # What the running server has loaded: /proc/PID/maps names every library mapped.
        mapped=$(grep -Eio "/[^ ]*($desktop_libs)[^ ]*" "/proc/$job/maps" | sort -u || true)
        echo "Qt GUI, X11 and GL libraries mapped by the headless run: $(grep -c . <<<"$mapped" || true)"
        if [ "$gui" = OFF ] && [ -n "$mapped" ]; then echo "$mapped"; echo "FAIL: the server maps them"; exit 1; fi
        fingerprint=$(openssl x509 -in "$state/identity.crt" -noout -fingerprint -sha256 | sed 's/.*=//')
        grep -q "TLS certificate SHA-256 fingerprint: $fingerprint" "$work/log/TarnSrvSvc.html" \
            || { echo "FAIL: the log does not show the fingerprint $fingerprint"; exit 1; }
        echo "PASS: installed programs run from $root"
        exit 0
    fi
    sleep 0.2
done
echo "FAIL: the installed TarnSrv did not answer on port $port"
cat "$work/srv.log" "$work/ping"
exit 1
