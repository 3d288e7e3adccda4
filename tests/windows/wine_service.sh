#!/bin/bash
# The service host on Windows' own control manager under Wine: TarnSvc.exe
# from the Windows zip, through advapi32, WinMain, the dispatcher thread and
# the native event filter, not the Linux substitute. Beside it stand a
# stand-in TarnSrv.exe that notes its start and the request to close (and can
# hang), a probe service built from the same framework, and a query tool.
# The real manager under the service is checked by wine_product.sh.
#
# Usage: tests/windows/wine_service.sh <Windows build folder>
#   (scripts/windows-package.sh made it: the zip and bin/ with the helpers)
#
# Where Wine differs from Windows (beyond those in winelib.sh), the checks
# below say so and what they check instead:
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
# - Wine neither checks nor shows a service's password, so an installation
#   with one is checked for its account only, not for the password having
#   arrived; the Linux tests check how it is handed over.
set -uo pipefail
BUILD=$(cd "${1:?usage: wine_service.sh <Windows build folder>}" && pwd)
source "$(dirname "$0")/winelib.sh"
step "the service host under Wine's control manager"
start_prefix

# The host lives in a directory with a space in its path, unpacked from the
# zip, with the stand-in in the manager's place, the probe service and the
# query tool.
WINDIR='C:\tarn svc'
DIR="$WINEPREFIX/drive_c/tarn svc"
HOST="$WINDIR\\TarnSvc.exe"
PROBE="$WINDIR\\TarnProbe.exe"
unzip -q -d "$WORK/zip" "$BUILD"/tarn-*-win64.zip && mv "$WORK"/zip/tarn-*-win64 "$DIR" &&
    cp "$BUILD/bin/TarnSrvStandin.exe" "$DIR/TarnSrv.exe" && cp "$BUILD"/bin/{TarnProbe,scquery}.exe "$DIR/" ||
    die "cannot stage the programs"

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

# Not installed: what the system's answers become (the options themselves
# are read by code the Linux tests cover). A start without an installed
# service: the dispatcher fails with 1063 and starting through the manager
# fails, so -4 (252).
expect "-h" "$USAGE" "" 0 "$HOST" -h
version "not installed and not running"
expect "-v, not installed" "$VERSION" "" 0 "$HOST" -v
expect "-uninstall, not installed" "" "$NOT_INSTALLED" 0 "$HOST" -uninstall
expect "-t, not installed" "" "The service could not be stopped. ($NO_SERVICE_TEXT)
" 0 "$HOST" -t
expect "-c 5, not installed" "" "" 0 "$HOST" -c 5
expect "no option, not installed" "" "$NO_START" 252 "$HOST"
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
child_untouched() {
    check "$1: child untouched" [ "$(cat "$CHILD_LOG")" = "started $CHILD_PID []" ]
    check "$1: child alive" alive "$CHILD_PID"
}
controls "$HOST" child_untouched

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

# Accounts, as CreateServiceW gets them: a user makes the service
# non-interactive; LocalSystem means no account. How the name is completed is
# the Linux tests' part. The password is only handed over (Wine does not check it).
while IFS=';' read -r account password type shown; do
    run "$HOST" -i "$account" "$password"
    check "-i '$account': exit code $CODE" [ "$CODE" = 0 ]
    config TarnSvc
    check "-i '$account': configuration $CONFIG" [ "$CONFIG" = "$type|3|$shown|\"$HOST\"|VARNOK Server" ]
    run "$HOST" -u
    check "-i '$account': uninstalled" [ "$CODE" = 0 ]
done <<'EOF_ACCOUNTS'
someuser;secret;16;.\someuser
NT AUTHORITY\LocalSystem;;272;LocalSystem
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

finish "service host under Wine" "$CHILD_LOG" "$PROBE_LOG"
