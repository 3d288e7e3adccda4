#!/bin/bash
# The service host on its Windows binding: cross-builds TarnSvc.exe for 64-bit
# Windows with mingw-w64 and runs its whole command line and lifecycle under
# Wine's own service control manager - advapi32, WinMain, the dispatcher
# thread and the native event filter, not the Linux substitute.
#
# Qt 5 only: its Windows Qt is built from Debian's Qt 5 source, as the product's packaging uses Qt 5.
#
# Usage: scripts/windows-check.sh [--if-prepared]
#   --if-prepared  exit 77 (skipped) unless the toolchain cache and wine are
#                  already there, instead of preparing them (for CTest)
#
# Environment:
#   TARN_WIN_CACHE  toolchain cache, kept between runs (default /var/cache/tarn-win):
#                   Qt 5 Core for Windows built from Debian's qtbase source
#   TARN_WIN_BUILD  cross build directory (default <repo>/build-win)
#
# Preparing the cache (once per machine, as root: apt) takes about eight
# minutes on two cores (download and unpack 10 s, configure 2.5 min, Qt Core
# 4 min, install 10 s). Later runs cross-build (15 s from scratch) and test
# (about 70 s, a quarter of it creating the throwaway Wine prefix).
#
# Where Wine differs from Windows, the checks below say so and what they
# check instead:
# - Exit codes: a Windows exit status is 32 bits; wine hands the low 8 bits
#   to Linux, so -1 reads 255 and -4 reads 252 (the same as on Linux).
# - Output: the C runtime writes stdout/stderr in text mode, so every line
#   ends in CR LF, as on Windows. The texts are compared byte for byte with
#   the Linux texts with each LF turned into CR LF.
# - Error texts come from the system's message table (FormatMessageW), whose
#   wording is Wine's; they are compared against what the system gives for
#   the code (scquery text), not against Windows' wording.
# - Event log: Wine has no event log; ReportEventW writes error records to
#   its "eventlog" debug channel on the stderr of the process, so a service's
#   records show in the log of Wine's service manager, which is read here.
# - The dispatcher from a console fails with 1063 as on Windows, but Wine
#   first tries the control pipe of the service started last; while that
#   service runs, the pipe is busy and the failure comes after a 10 s wait
#   (Windows answers at once). Only the exit codes and outputs are checked,
#   not how fast a start from a console returns.
# - Wine offers no way to make the dispatcher fail otherwise from outside
#   the process: its only other failure is a second call in the same process,
#   which the host never makes, and a service registered under another name
#   but running TarnSvc.exe still gets the table's first entry, as an
#   own-process service does on Windows. So the event-log record the host
#   writes on such a failure is not provoked here; the event-log path itself
#   is checked through the probe service.
# - A new prefix can be left with two services.exe (see below).
# - Wine neither checks nor shows a service's password, so an installation
#   with one is checked for its account only, not for the password having
#   arrived; the Linux tests check how it is handed over.
set -uo pipefail

ROOT=$(cd "$(dirname "$0")/.." && pwd)
CACHE=${TARN_WIN_CACHE:-/var/cache/tarn-win}
BUILD=${TARN_WIN_BUILD:-$ROOT/build-win}
QT=$CACHE/qt5-win64
MINGW=x86_64-w64-mingw32
JOBS=${TARN_WIN_JOBS:-2}

die() { echo "windows-check: $*" >&2; exit 1; }
step() { echo "== $* ($(date +%T))"; }

toolchain_ready() { [ -f "$QT/.tarn-complete" ]; }
wine_ready() { command -v wine >/dev/null && command -v wineserver >/dev/null; }

if [ "${1:-}" = --if-prepared ]; then
    if ! toolchain_ready || ! wine_ready; then
        echo "windows-check: no toolchain cache in $CACHE or no wine: skipped (run scripts/windows-check.sh once)"
        exit 77
    fi
fi

# --- Qt 5 Core for Windows, from the source of the installed Qt -------------
prepare_toolchain() {
    toolchain_ready && return 0
    [ "$(id -u)" = 0 ] || die "preparing $CACHE needs root (apt)"
    command -v $MINGW-g++-posix >/dev/null || DEBIAN_FRONTEND=noninteractive apt-get install -y -q g++-mingw-w64-x86-64-posix || die "no mingw-w64"
    step "preparing Qt Core for Windows in $CACHE"
    local start=$SECONDS version
    version=$(dpkg-query -W -f='${Version}' libqt5core5a) || die "Qt 5 is not installed"
    mkdir -p "$CACHE/src" || die "cannot create $CACHE"
    if ! ls "$CACHE"/src/qtbase-opensource-src_*.orig.tar.xz >/dev/null 2>&1; then
        # A deb-src entry for the mirror and release already in use.
        if ! grep -rqsE '^(Types:.*deb-src|deb-src )' /etc/apt/sources.list /etc/apt/sources.list.d/; then
            local uri codename
            uri=$(grep -hm1 '^URIs:' /etc/apt/sources.list.d/*.sources 2>/dev/null | awk '{print $2}')
            codename=$(. /etc/os-release && echo "$VERSION_CODENAME")
            cat > /etc/apt/sources.list.d/tarn-deb-src.sources <<EOF
Types: deb-src
URIs: ${uri:-http://deb.debian.org/debian}
Suites: $codename
Components: main
Signed-By: /usr/share/keyrings/debian-archive-keyring.gpg
EOF
        fi
        apt-get update -q >/dev/null || die "apt-get update failed"
        (cd "$CACHE/src" && apt-get source --download-only "qtbase-opensource-src=$version") > "$CACHE/download.log" 2>&1 ||
            die "no qtbase source, see $CACHE/download.log"
    fi
    local srcdir
    rm -rf "$CACHE"/src/qtbase-everywhere-src-* "$CACHE/build-qt" "$QT"
    tar -C "$CACHE/src" -xf "$CACHE"/src/qtbase-opensource-src_*.orig.tar.xz || die "cannot unpack qtbase"
    srcdir=$(echo "$CACHE"/src/qtbase-everywhere-src-*)

    # Qt's win32-g++ mkspec calls <prefix>g++; point that at the posix-thread
    # compilers (Debian's plain name is the win32-thread one).
    mkdir -p "$CACHE/bin"
    for tool in gcc g++ c++; do ln -sf "/usr/bin/$MINGW-$tool-posix" "$CACHE/bin/$MINGW-$tool"; done
    export PATH="$CACHE/bin:$PATH"

    mkdir -p "$CACHE/build-qt" && cd "$CACHE/build-qt" || die "no build directory"
    "$srcdir/configure" -xplatform win32-g++ -device-option CROSS_COMPILE=$MINGW- \
        -release -opensource -confirm-license -shared -no-gui -no-widgets -no-openssl \
        -no-feature-network -no-dbus -no-icu -qt-pcre -qt-zlib -nomake examples -nomake tests \
        -prefix "$QT" > "$CACHE/configure.log" 2>&1 || die "configure failed, see $CACHE/configure.log"
    # Only what the host needs: Qt Core, qtmain, and the host tools its CMake
    # package refers to.
    { make sub-src-qmake_all &&
      make -j"$JOBS" -C src sub-corelib-make_first sub-winmain-make_first sub-rcc-make_first &&
      for dir in src/corelib src/winmain src/tools/moc src/tools/rcc; do make -C "$dir" install || exit 1; done &&
      make sub-qmake-qmake-aux-pro-install_subtargets install_mkspecs; } > "$CACHE/build.log" 2>&1 || die "Qt build failed, see $CACHE/build.log"
    [ -f "$QT/lib/cmake/Qt5Core/Qt5CoreConfig.cmake" ] && [ -f "$QT/bin/Qt5Core.dll" ] || die "Qt install incomplete"
    touch "$QT/.tarn-complete"
    cd "$ROOT" || exit 1
    step "Qt Core for Windows ready after $((SECONDS - start)) s"
}

prepare_wine() {
    wine_ready && return 0
    [ "$(id -u)" = 0 ] || die "installing wine needs root"
    step "installing wine"
    DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends wine wine64 >/dev/null || die "cannot install wine"
}

cross_build() {
    step "cross-building TarnSvc.exe"
    local start=$SECONDS
    mkdir -p "$BUILD" || die "cannot create $BUILD"
    cmake -S "$ROOT" -B "$BUILD" -DCMAKE_TOOLCHAIN_FILE="$ROOT/cmake/mingw-w64-x86_64-posix.cmake" \
        -DTARN_WIN_QT_PREFIX="$QT" -DTARN_SERVICE_ONLY=ON -DCMAKE_BUILD_TYPE=Release > "$BUILD/configure.log" 2>&1 ||
        { cat "$BUILD/configure.log"; die "cmake failed"; }
    cmake --build "$BUILD" -j"$JOBS" > "$BUILD/build.log" 2>&1 || { tail -40 "$BUILD/build.log"; die "cross build failed"; }
    step "cross build done after $((SECONDS - start)) s"
}

prepare_toolchain
prepare_wine
cross_build

# --- The end-to-end test ------------------------------------------------------
step "end-to-end test under Wine"
E2E_START=$SECONDS
export WINEPREFIX
WINEPREFIX=$(mktemp -d /tmp/tarn-wine.XXXXXX) || die "no temporary directory"
export WINEARCH=win64 WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
WORK=$WINEPREFIX/work
cleanup() {
    wineserver -k >/dev/null 2>&1
    wineserver -w >/dev/null 2>&1
    rm -rf "$WINEPREFIX"
}
trap cleanup EXIT
mkdir -p "$WORK"

# Wine's service manager starts with the prefix and keeps the stdio of the
# process that started it: services' output and Wine's error-level event log
# land in services.log. A persistent wineserver keeps that manager for the
# whole test; otherwise it ends with the last program and the next one would
# start a new one on its own stdio.
# Wine difference: right after creating a prefix, a second services.exe can
# be left beside the first, and services created through one are unknown to
# the other (OpenServiceW fails with 1060 after a successful CreateServiceW).
# So the prefix is created first, then the server restarted and booted once.
wineboot -i > "$WORK/wineboot.log" 2>&1 || die "wineboot -i failed"
wineserver -k; wineserver -w
wineserver -p || die "cannot start wineserver"
WINEDEBUG=-all,err+eventlog wineboot > "$WORK/services.log" 2>&1 || die "wineboot failed"

# The host lives in a directory with a space in its path, beside the
# stand-in child, the probe service, the query tool and the DLLs they need.
WINDIR='C:\tarn svc'
DIR="$WINEPREFIX/drive_c/tarn svc"
HOST="$WINDIR\\TarnSvc.exe"
PROBE="$WINDIR\\TarnProbe.exe"
mkdir -p "$DIR"
cp "$BUILD"/bin/{TarnSvc,TarnSrv,TarnProbe,scquery}.exe "$QT/bin/Qt5Core.dll" \
   /usr/lib/gcc/$MINGW/*-posix/{libstdc++-6,libgcc_s_seh-1}.dll /usr/$MINGW/lib/libwinpthread-1.dll "$DIR/" ||
    die "cannot stage the programs"

FAILURES=0
CHECKS=0
fail() { echo "FAIL: $*"; FAILURES=$((FAILURES + 1)); }
pass() { CHECKS=$((CHECKS + 1)); }

# run <program> <args...>: runs it under wine, leaving OUT, ERR and CODE.
run() {
    local program=$1; shift
    (cd "$DIR" && wine "$program" "$@" < /dev/null > "$WORK/out" 2> "$WORK/err")
    CODE=$?
}

# Compares a captured stream with the expected text, LF written as CR LF.
same_text() {
    printf '%s' "$2" | sed -z 's/\n/\r\n/g' > "$WORK/expected"
    cmp -s "$WORK/expected" "$1"
}

# expect <name> <out> <err> <code> <program> <args...>
expect() {
    local name=$1 out=$2 err=$3 code=$4; shift 4
    run "$@"
    local ok=1
    same_text "$WORK/out" "$out" || { ok=0; fail "$name: stdout"; od -c "$WORK/out" | head -20; }
    same_text "$WORK/err" "$err" || { ok=0; fail "$name: stderr"; od -c "$WORK/err" | head -20; }
    [ "$CODE" = "$code" ] || { ok=0; fail "$name: exit code $CODE, expected $code"; }
    [ $ok = 1 ] && pass
}

# query <service>: STATE and PID from the control manager.
query() {
    read -r STATE PID < <(cd "$DIR" && wine scquery.exe state "$1" | tr -d '\r')
}
alive() { [ "$(cd "$DIR" && wine scquery.exe alive "$1" | tr -d '\r')" = yes ]; }
gone() { # gone <pid>: the process ends within 10 s
    local i
    for i in $(seq 20); do
        alive "$1" || return 0
        sleep 0.5
    done
    return 1
}

# wait_state <service> <state>: up to 10 s.
wait_state() {
    local i
    for i in $(seq 50); do
        query "$1"
        [ "$STATE" = "$2" ] && return 0
        sleep 0.2
    done
    return 1
}

wait_line() { # wait_line <file> <pattern>: up to 10 s
    local i
    for i in $(seq 50); do
        grep -qE "$2" "$1" 2>/dev/null && return 0
        sleep 0.2
    done
    return 1
}

check() { # check <name> <command...>
    local name=$1; shift
    if "$@"; then pass; else fail "$name"; fi
}

STOPPED=1 RUNNING=4 PAUSED=7
USAGE="
$HOST -[i|u|e|t|p|r|c|v|h]
	-i(nstall) [account] [password]	: Install the service, optionally using given account and password
	-u(ninstall)	: Uninstall the service.
	-e(xec)		: Run as a regular application. Useful for debugging.
	-t(erminate)	: Stop the service.
	-p(ause)	: Pause the service.
	-r(esume)	: Resume a paused service.
	-c(ommand) num	: Send command code num to the service.
	-v(ersion)	: Print version and status information.
	-h(elp)   	: Show this help
	No arguments	: Start the service.
"
NL=$'\n' TAB=$'\t'
version() { VERSION="The service$NL${TAB}TarnSvc$NL$TAB$HOST$NL${NL}is $1$NL$NL"; }
NO_START="The service TarnSvc could not start
"
NOT_INSTALLED="The service TarnSvc is not installed
"
NO_SERVICE_TEXT=$(cd "$DIR" && wine scquery.exe text 1060)
[ -n "$NO_SERVICE_TEXT" ] || fail "no system text for error 1060"
echo "system text for 1060: $NO_SERVICE_TEXT"

# Not installed. A start without an installed service: the dispatcher
# fails with 1063 and starting through the manager fails, so -4 (252).
expect "-h" "$USAGE" "" 0 "$HOST" -h
expect "-help" "$USAGE" "" 0 "$HOST" -help
version "not installed and not running"
expect "-v, not installed" "$VERSION" "" 0 "$HOST" -v
expect "-uninstall, not installed" "" "$NOT_INSTALLED" 0 "$HOST" -uninstall
expect "-t, not installed" "" "The service could not be stopped. ($NO_SERVICE_TEXT)
" 0 "$HOST" -t
expect "-p, not installed" "" "" 0 "$HOST" -p
expect "-r, not installed" "" "" 0 "$HOST" -r
expect "-c 5, not installed" "" "" 0 "$HOST" -c 5
expect "no option, not installed" "" "$NO_START" 252 "$HOST"
expect "--install is no option" "" "$NO_START" 252 "$HOST" --install
expect "-I is no option" "" "$NO_START" 252 "$HOST" -I
query TarnSvc
check "nothing installed" [ "$STATE" = none ]

# Install twice.
expect "-i" "The service TarnSvc has been installed under: $HOST
" "" 0 "$HOST" -i
expect "-install again" "" "The service TarnSvc is already installed
" 0 "$HOST" -install
version "installed and not running"
expect "-v, installed" "$VERSION" "" 0 "$HOST" -version
query TarnSvc
check "installed and stopped in the manager" [ "$STATE" = $STOPPED ]
# Own process, interactive (0x110), demand start (3), no account (shown as
# LocalSystem), the path in quotes and the description.
config() { CONFIG=$(cd "$DIR" && wine scquery.exe config "$1" < /dev/null | tr -d '\r'); }
config TarnSvc
check "configuration: $CONFIG" [ "$CONFIG" = "272|3|LocalSystem|\"$HOST\"|VARNOK Server" ]

# A bare start from a console: 1063, then the manager starts the service,
# whose main runs the host, which launches the stand-in child.
expect "start" "" "" 0 "$HOST"
check "service running" wait_state TarnSvc $RUNNING
HOST_PID=$PID
CHILD_LOG="$DIR/TarnSrv.log"
check "child started" wait_line "$CHILD_LOG" '^started [0-9]+ \[\]$'
CHILD_PID=$(awk '/^started/ {print $2; exit}' "$CHILD_LOG" 2>/dev/null)
check "child running" alive "${CHILD_PID:-0}"
check "host running" alive "${HOST_PID:-0}"
version "installed and running"
expect "-v, running" "$VERSION" "" 0 "$HOST" -v

# Pause, resume and a command: the manager shows the state, the child is
# untouched (same process, nothing but its start in its log).
for step in "-p $PAUSED" "-r $RUNNING" "-c $RUNNING"; do
    set -- $step
    expect "$1 5" "" "" 0 "$HOST" "$1" 5
    query TarnSvc
    check "$1: state $STATE, expected $2" [ "$STATE" = "$2" ]
    check "$1: child untouched" [ "$(cat "$CHILD_LOG")" = "started $CHILD_PID []" ]
    check "$1: child alive" alive "$CHILD_PID"
done

# processCommand(5) reached: TarnSvc's is a no-op, so the probe service,
# built from the same framework, records it (and reports it to the event log).
PROBE_LOG="$DIR/TarnProbe.log"
run "$PROBE" -i
check "probe installed" [ "$CODE" = 0 ]
run "$PROBE" start-argument
check "probe start from a console" [ "$CODE" = 0 ]
check "probe running" wait_state TarnProbe $RUNNING
check "probe main got its name and arguments" wait_line "$PROBE_LOG" '^start TarnProbe[|]start-argument$'
run "$PROBE" -c 5
check "probe -c 5 exit code" [ "$CODE" = 0 ]
check "probe processCommand(5)" wait_line "$PROBE_LOG" '^command 5$'
check "probe command in the event log" wait_line "$WORK/services.log" 'err:eventlog:.*TarnProbe command 5'
run "$PROBE" -p
check "probe paused" wait_state TarnProbe $PAUSED
run "$PROBE" -r
check "probe resumed" wait_state TarnProbe $RUNNING
run "$PROBE" -t
check "probe stopped" [ "$CODE" = 0 ]
query TarnProbe
check "probe stopped in the manager" [ "$STATE" = $STOPPED ]
check "probe log" [ "$(cat "$PROBE_LOG")" = "start TarnProbe|start-argument
command 5
pause
resume
stop" ]
run "$PROBE" -u
check "probe uninstalled" [ "$CODE" = 0 ]

# Stop: the child is asked to close (WM_CLOSE), and neither it nor the host
# outlives the service.
expect "-t" "" "" 0 "$HOST" -t
query TarnSvc
check "stopped in the manager" [ "$STATE" = $STOPPED ]
check "child asked to close" wait_line "$CHILD_LOG" '^close$'
check "child gone" gone "$CHILD_PID"
check "host gone" gone "$HOST_PID"
# A child that ignores the request to close: the host kills it on its way
# out, so it does not outlive the service either. The host gives no grace
# period between the request and the kill (the kill comes milliseconds later,
# when its process object is destroyed), so whether this child got to note
# the request is a race - about one stop in six loses it under Wine - and is
# not checked here; the request itself is checked with the child above.
touch "$DIR/TarnSrv.ignore-close"
rm -f "$CHILD_LOG"
expect "start again" "" "" 0 "$HOST"
check "running again" wait_state TarnSvc $RUNNING
HOST_PID=$PID
check "stubborn child started" wait_line "$CHILD_LOG" '^started [0-9]+ \[\]$'
CHILD_PID=$(awk '/^started/ {print $2; exit}' "$CHILD_LOG" 2>/dev/null)
expect "-t, stubborn child" "" "" 0 "$HOST" -t
query TarnSvc
check "stopped again" [ "$STATE" = $STOPPED ]
check "stubborn child gone" gone "${CHILD_PID:-0}"
check "host gone again" gone "${HOST_PID:-0}"
check "stubborn child killed, not ended" [ "$(grep -c '^exit' "$CHILD_LOG")" = 0 ]
rm -f "$DIR/TarnSrv.ignore-close"

version "installed and not running"
expect "-v, stopped" "$VERSION" "" 0 "$HOST" -v

# Uninstall twice.
expect "-u" "The service TarnSvc has been uninstalled.
" "" 0 "$HOST" -u
expect "-u again" "" "$NOT_INSTALLED" 0 "$HOST" -u
query TarnSvc
check "gone from the manager" [ "$STATE" = none ]

# Accounts: a bare user gets the local prefix and makes the service
# non-interactive; LocalSystem, prefixed or not, means no account. The
# password is only handed to CreateServiceW (Wine does not check it).
while IFS=';' read -r account password type shown; do
    run "$HOST" -i "$account" "$password"
    check "-i '$account': exit code $CODE" [ "$CODE" = 0 ]
    config TarnSvc
    check "-i '$account': configuration $CONFIG" [ "$CONFIG" = "$type|3|$shown|\"$HOST\"|VARNOK Server" ]
    run "$HOST" -u
    check "-i '$account': uninstalled" [ "$CODE" = 0 ]
done <<'EOF_ACCOUNTS'
someuser;secret;16;.\someuser
DOM\bob;;16;DOM\bob
LocalSystem;;272;LocalSystem
NT AUTHORITY\LocalSystem;;272;LocalSystem
localsystem;;16;.\localsystem
EOF_ACCOUNTS
# QtServiceController::install hands the password to the host through a pipe,
# not on its command line; the host, a GUI-subsystem program, reads it there.
run "$PROBE" install "$HOST" someuser "pass word"
check "install through the controller: exit code $CODE" [ "$CODE" = 0 ]
config TarnSvc
check "install through the controller: configuration $CONFIG" [ "$CONFIG" = "16|3|.\someuser|\"$HOST\"|VARNOK Server" ]
run "$HOST" -u
check "install through the controller: uninstalled" [ "$CODE" = 0 ]
# A host deeper than MAX_PATH (260 characters) finds and registers its whole path.
LONG=$(printf 'd%.0s' $(seq 100))
LONGDIR="$LONG\\$LONG\\$LONG"
LONGHOST="$WINDIR\\$LONGDIR\\TarnSvc.exe"
mkdir -p "$DIR/$LONG/$LONG/$LONG"
cp "$DIR"/{TarnSvc.exe,*.dll} "$DIR/$LONG/$LONG/$LONG/"
expect "-i, path of ${#LONGHOST} characters" "The service TarnSvc has been installed under: $LONGHOST
" "" 0 "$LONGHOST" -i
config TarnSvc
check "long path registered: $CONFIG" [ "$CONFIG" = "272|3|LocalSystem|\"$LONGHOST\"|VARNOK Server" ]
run "$LONGHOST" -u
check "long path: uninstalled" [ "$CODE" = 0 ]
query TarnSvc
check "gone after the account checks" [ "$STATE" = none ]

step "end-to-end test done after $((SECONDS - E2E_START)) s: $CHECKS passed, $FAILURES failed"
if [ $FAILURES != 0 ]; then
    for log in "$WORK/services.log" "$CHILD_LOG" "$PROBE_LOG"; do
        echo "--- $log"
        cat "$log"
    done
    exit 1
fi
