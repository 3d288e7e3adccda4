#!/bin/bash
# The whole product for Windows under Wine, run from the zip unpacked into a
# fresh prefix, so that a DLL or plugin missing from the zip fails here. The
# Linux programs and the Windows ones talk TLS to each other over 127.0.0.1.
#
# Usage: tests/windows/wine_product.sh <Windows build folder> <Linux tarn> <Linux TarnSrv>
#
# Where Wine differs from Windows (beyond those in winelib.sh):
# - Wine makes no window without a display, so the whole check runs under an
#   Xvfb of its own; the headless runs use the offscreen platform all the same.
# - A Unix signal does not reach a Windows program's console handler. A
#   manager is told to end as the service host and QProcess::terminate tell
#   a process on Windows: WM_CLOSE to its windows and threads (scquery close).
# - Discovery is left out: it broadcasts, and nothing here may.
# The service running the real manager is checked from the installer
# (wine_installer.sh), the host's own controls by wine_service.sh.
set -uo pipefail
HERE=$(cd "$(dirname "$0")" && pwd)
BUILD=$(cd "${1:?usage: wine_product.sh <Windows build folder> <Linux tarn> <Linux TarnSrv>}" && pwd)
TARN=${2:?Linux tarn}
LINUX_MANAGER=${3:?Linux TarnSrv}
source "$HERE/winelib.sh"
VERSION=$("$TARN" --version | awk '{print $NF}')

# Private ports, told apart from each other.
PORTS=()
for _ in 1 2 3 4; do
    while :; do
        port=$(bash "$HERE/../../scripts/free-port.sh")
        [[ " ${PORTS[*]} " == *" $port "* ]] || break
    done
    PORTS+=("$port")
done
read -r P_WINDOW P_HEADLESS P_LINUX P_SETTINGS <<< "${PORTS[*]}"

# The Linux side keeps its files here, apart from the user's.
export XDG_CONFIG_HOME=$WORK/linux/config XDG_DATA_HOME=$WORK/linux/data TARN_INSTANCE_LOCK=$WORK/linux/instance.lock
mkdir -p "$XDG_CONFIG_HOME" "$XDG_DATA_HOME"

Xvfb -displayfd 3 -screen 0 1024x768x24 -nolisten tcp 3> "$WORK/display" 2> "$WORK/xvfb.log" &
on_exit "kill $! 2>/dev/null"
wait_line "$WORK/display" '^[0-9]+$' || die "Xvfb did not start"
export DISPLAY=:$(cat "$WORK/display")
start_prefix

step "the Windows zip, unpacked into a fresh prefix"
WINDIR='C:\Program Files\Tarn'
DIR="$WINEPREFIX/drive_c/Program Files/Tarn"
unzip -q -d "$WORK/zip" "$BUILD"/tarn-*-win64.zip && mv "$WORK"/zip/tarn-*-win64 "$DIR" || die "cannot unpack the zip"
for file in TarnSrv.exe TarnSvc.exe tarn.exe TarnSrv.cfg qt.conf README-windows.txt \
            platforms/qwindows.dll platforms/qoffscreen.dll styles/qwindowsvistastyle.dll; do
    check "the zip holds $file" [ -f "$DIR/$file" ]
done
mv "$DIR/TarnSrv.cfg" "$WORK/TarnSrv.cfg.shipped"
cp "$BUILD/bin/scquery.exe" "$DIR/"
LOGDIR="$WINEPREFIX/drive_c/ProgramData/Tarn"
mkdir -p "$LOGDIR"

unanswered() { ! ping_linux "$1" --insecure; }
# start_manager <name> <args...>: TarnSrv.exe in the background; its streams
# in $WORK/<name>.out and .err, the wine process in MANAGER.
start_manager() {
    local name=$1; shift
    (cd "$DIR" && exec wine TarnSrv.exe "$@" < /dev/null > "$WORK/$name.out" 2> "$WORK/$name.err") &
    MANAGER=$!
    on_exit "kill $MANAGER 2>/dev/null"
}
# serving <name> <port>: the headless manager's line that says where clients connect.
serving() { wait_line "$WORK/$1.err" "Clients connect to .*wss://[0-9.]+:$2 " 40; }
# end_manager: asks the running TarnSrv.exe to end, and kills it after 20 s;
# MANAGER_CODE is its exit code.
end_manager() {
    local pid
    pid=$(manager_pid)
    [ -n "$pid" ] && scquery close "$pid" >/dev/null
    within 20 eval "! kill -0 $MANAGER 2>/dev/null" || kill "$MANAGER"
    wait "$MANAGER"
    MANAGER_CODE=$?
}
# The messages of the HTML log, one a line.
log_messages() { sed 's/<br>/\n/g' "$LOGDIR/TarnSrvSvc.html" | sed -nE 's/^(\xEF\xBB\xBF)?<font [^>]*>[0-9. :]+ - \w+ : (.*)<\/font>$/\2/p'; }

step "1. the programs run"
run tarn.exe --version
check "tarn.exe --version: $OUT" [ "$CODE" = 0 ]
check "tarn.exe --version: $OUT" [ "$OUT" = "tarn $VERSION" ]
run TarnSrv.exe --help
# The same options as on Linux; the program's name and the identity's folder
# are the platform's.
check "TarnSrv.exe --help" [ "$CODE" = 0 ]
# Windows' help also answers to -?, which widens the option column.
options() { tail -n +4 | sed 's/-?, //' | tr -s ' '; }
check "TarnSrv.exe --help" [ "$(options <<< "$OUT")" = "$("$LINUX_MANAGER" --help | options)" ]
check "the identity's folder in --help" grep -q "kept in C:/users/.*/AppData/Local/VARNOK Labs/VARNOK Manager\.$" <<< "$OUT"
run TarnSrv.exe --fingerprint
FINGERPRINT=$OUT
IDENTITY=$(echo "$WINEPREFIX"/drive_c/users/*/AppData/Local/"VARNOK Labs/VARNOK Manager")
check "the identity is in the user's application data" [ -f "$IDENTITY/identity.key" ]
check "TarnSrv.exe --fingerprint: $FINGERPRINT" [ "$CODE" = 0 ]
check "TarnSrv.exe --fingerprint: $FINGERPRINT" [ "$FINGERPRINT" = "$(openssl x509 -in "$IDENTITY/identity.crt" -noout -fingerprint -sha256 | cut -d= -f2)" ]

step "3. the window"
# No configuration file and no stored settings: the server waits for its button,
# and the log goes to the user's data folder.
rm -f "$IDENTITY/TarnSrvSvc.html"
start_manager window --port "$P_WINDOW"
shown() { WINDOW=$(xdotool search --onlyvisible --name '^VARNOK Tarn Server$' 2>/dev/null | head -n 1); [ -n "$WINDOW" ]; }
check "the window is shown" within 20 shown
check "not serving before the button" unanswered "$P_WINDOW"
# The button is found by the form's focus order, which no font or layout
# moves: the window starts with Auto start focused, and Start is three Tabs on.
# The fingerprint is the window's last start-up line, so keys typed after it
# reach a window that has taken its focus.
check "the window has started up" wait_line "$IDENTITY/TarnSrvSvc.html" "fingerprint" 20
if [ -n "$WINDOW" ]; then
    xdotool windowfocus "$WINDOW" key Tab Tab Tab space
fi
check "the Start button starts the server" within 10 ping_linux "$P_WINDOW" --insecure
[ -n "$WINDOW" ] && [ -n "${TARN_SCREENSHOT:-}" ] && import -window "$WINDOW" "$TARN_SCREENSHOT"
end_manager
check "the window ends when told to: $MANAGER_CODE" [ "$MANAGER_CODE" = 0 ]

step "2. the manager serves headless, with the shipped configuration"
mkdir -p "$WORK/linux/bin"
cp "$LINUX_MANAGER" "$WORK/linux/bin/TarnSrv"
"$WORK/linux/bin/TarnSrv" --headless --start --port "$P_LINUX" < /dev/null > /dev/null 2> "$WORK/linux.err" &
on_exit "kill $! 2>/dev/null"
cp "$WORK/TarnSrv.cfg.shipped" "$DIR/TarnSrv.cfg"
start_manager headless --headless --start --port "$P_HEADLESS"
check "the headless manager serves" serving headless "$P_HEADLESS"
check "it shows the fingerprint" grep -q "fingerprint: $FINGERPRINT)" "$WORK/headless.err"
check "the Linux tarn pings it" ping_linux "$P_HEADLESS"
check "and pinned its fingerprint" grep -qx "127.0.0.1:$P_HEADLESS $FINGERPRINT" "$XDG_CONFIG_HOME/tarn/known_servers"
"$TARN" watch --name watcher "wss://127.0.0.1:$P_HEADLESS" > "$WORK/watch.out" 2>&1 &
on_exit "kill $! 2>/dev/null"
check "the Linux tarn watches" wait_line "$WORK/watch.out" '\+ watcher'
check "the Linux tarn lists the clients" "$TARN" clients --json "wss://127.0.0.1:$P_HEADLESS" > "$WORK/clients.out"
check "the list holds the watcher" grep -q '"watcher"' "$WORK/clients.out"
check "the Linux manager serves" serving linux "$P_LINUX"
run tarn.exe ping "wss://127.0.0.1:$P_LINUX"
check "tarn.exe pings the Linux manager: $OUT $ERR" [ "$CODE" = 0 ]
run tarn.exe ping "wss://127.0.0.1:$P_HEADLESS"
check "tarn.exe pings the Windows manager: $OUT $ERR" [ "$CODE" = 0 ]
log_messages > "$WORK/messages"
check "the HTML log opens with the start-up report" [ "$(head -n 3 "$WORK/messages")" = "VARNOK Server version $VERSION.

Reading configuration file C:/Program Files/Tarn/TarnSrv.cfg." ]

step "5. one manager at a time"
cp "$LOGDIR/TarnSrvSvc.html" "$WORK/log-before"
run TarnSrv.exe --headless --start --port "$P_SETTINGS"
check "a second manager is refused: $CODE $ERR" [ "$CODE" = 1 ]
check "a second manager is refused: $CODE $ERR" [ -n "$ERR" ]
check "and touches nothing" cmp -s "$LOGDIR/TarnSrvSvc.html" "$WORK/log-before"
check "the first one still serves" ping_linux "$P_HEADLESS"

step "2. the manager ends when told to"
end_manager
check "with exit code 0: $MANAGER_CODE" [ "$MANAGER_CODE" = 0 ]
check "after the usual stop lines" grep -q "Tarn server stopped." "$WORK/headless.err"
log_messages > "$WORK/messages"
check "the HTML log ends with the close" [ "$(tail -n 1 "$WORK/messages")" = "VARNOK Server closed." ]

step "5. settings in the registry, restored at the next start"
sed "s/^PortNr = .*/PortNr = $P_SETTINGS/" "$WORK/TarnSrv.cfg.shipped" > "$DIR/TarnSrv.cfg"
start_manager configured --headless
check "the configured manager serves" serving configured "$P_SETTINGS"
end_manager
STORED=$(reg_value 'HKCU\Software\VARNOK Labs\VARNOK Manager\Server' PortNr)
check "the registry holds the port: $STORED" grep -qixE "$P_SETTINGS|0x$(printf %x "$P_SETTINGS")" <<< "$STORED"
rm "$DIR/TarnSrv.cfg"
start_manager restored --headless
check "without the file the stored port and auto start serve" serving restored "$P_SETTINGS"
check "the Linux tarn pings it" ping_linux "$P_SETTINGS"
end_manager

finish "the product under Wine" "$WORK"/*.err "$WORK/ping.out"
