#!/bin/bash
# The service host on Windows' own control manager under Wine: TarnSvc.exe
# from the Windows zip, a GUI-subsystem program, through advapi32, the
# dispatcher thread and the native event filter, not the Linux substitute:
# what goes through the system. How the host parses its options, completes
# accounts and treats a child that hangs is the same code on Linux and left
# to the Linux tests.
# Beside it stand a stand-in TarnSrv.exe that notes its start and the request
# to close, a probe service built from the same framework, and a query tool.
# The real manager under the service, and its restart when it ends, are
# checked by wine_installer.sh.
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
# - Wine's control manager keeps no failure actions and rejects the delayed
#   start and the failure-actions flag (error 124): -i's warnings about the
#   two are expected here; the Linux tests read all three back from the
#   stand-in.
# - Wine shows every file as its one user's, with a Linux mode's write bits
#   for others as Everyone's: a folder made 0777 is one anyone may write.
# - Wine neither checks nor shows a service's password, so an installation
#   with one is checked for its account only; the Linux tests check how the
#   password is handed over.
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

# -v: the host's path as it was run and the state the system shows.
expect_v() { expect "-v, $1" "$(printf 'The service\n\tTarnSvc\n\t%s\n\nis %s' "$HOST" "$1")"$'\n\n' "" 0 "$HOST" -v; }
NO_SERVICE_TEXT=$(scquery text 1060)
[ -n "$NO_SERVICE_TEXT" ] || fail "no system text for error 1060"
echo "system text for 1060: $NO_SERVICE_TEXT"

# Not installed: what the system's answers become. A start without an
# installed service: the dispatcher fails with 1063 and starting through the
# manager fails, so -4 (252).
expect_v "not installed and not running"
expect "-t, not installed" "" "The service could not be stopped. ($NO_SERVICE_TEXT)
" 0 "$HOST" -t
expect "no option, not installed" "" "The service TarnSvc could not start
" 252 "$HOST"

# A folder any user may write (a Linux mode that Wine shows as Everyone's
# write): the service would run what a user put there, so -i refuses it.
mkdir "$DIR/open" && cp "$DIR"/{TarnSvc.exe,*.dll} "$DIR/open/" && chmod 777 "$DIR/open" || die "cannot stage the open folder"
expect "-i from a folder anyone may write" "" "The service TarnSvc was not installed: other users can change $WINDIR\\open (Everyone may write it)
" 255 "$WINDIR\\open\\TarnSvc.exe" -i
check "nothing installed from there" in_state TarnSvc none

# Wine's control manager accepts the failure actions (and keeps none), but
# knows neither the flag for stops with an error code nor the delayed start:
# -i says so and installs.
NO_LEVEL_TEXT=$(scquery text 124)
WINE_WARNINGS="The service's restarts after a stop with an error could not be set. ($NO_LEVEL_TEXT)
The service's delayed start could not be set. ($NO_LEVEL_TEXT)
"
expect "-i" "The service TarnSvc has been installed under: $HOST
" "$WINE_WARNINGS" 0 "$HOST" -i
expect_v "installed and not running"
check "installed and stopped in the manager" in_state TarnSvc $STOPPED
# Own process (0x10), demand start (3), no account (shown as LocalSystem),
# the path in quotes and the description.
config
check "configuration: $CONFIG" [ "$CONFIG" = "16|3|LocalSystem|\"$HOST\"|VARNOK Server" ]

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
expect_v "installed and running"

# Pause, resume and a command through the system: TarnSvc's handlers do
# nothing, so the probe service, built from the same framework, records each
# (and reports the command to the event log).
PROBE_LOG="$DIR/TarnProbe.log"
check "probe installed" run "$PROBE" -i
check "probe start from a console" run "$PROBE" start-argument
check "probe running" wait_state TarnProbe $RUNNING
check "probe main got its name and arguments" wait_line "$PROBE_LOG" '^start TarnProbe[|]start-argument$'
run "$PROBE" -c 5
check "probe processCommand(5)" wait_line "$PROBE_LOG" '^command 5$'
check "probe command in the event log" wait_line "$WORK/services.log" 'err:eventlog:.*TarnProbe command 5'
run "$PROBE" -p
check "probe paused" wait_state TarnProbe $PAUSED
run "$PROBE" -r
check "probe resumed" wait_state TarnProbe $RUNNING
run "$PROBE" -t
check "probe stopped in the manager" in_state TarnProbe $STOPPED
check "probe log" [ "$(cat "$PROBE_LOG")" = "start TarnProbe|start-argument
command 5
pause
resume
stop" ]
check "probe uninstalled" run "$PROBE" -u

# Stop: the child is asked to close (WM_CLOSE), and neither it nor the host
# outlives the service.
expect "-t" "" "" 0 "$HOST" -t
check "stopped in the manager" in_state TarnSvc $STOPPED
check "child asked to close" wait_line "$CHILD_LOG" '^close$'
check "child gone" gone "$CHILD_PID"
check "host gone" gone "$HOST_PID"
expect "-u" "The service TarnSvc has been uninstalled.
" "" 0 "$HOST" -u
check "gone from the manager" in_state TarnSvc none

# QtServiceController::install hands the password to the host through a pipe,
# not on its command line; the host, a GUI-subsystem program, reads it there.
# The account holds a space, which must reach the host as one argument; a
# user makes the service non-interactive.
run "$PROBE" install "$HOST" "some user" "pass word"
check "install through the controller: exit code $CODE" [ "$CODE" = 0 ]
config
check "install through the controller: configuration $CONFIG" [ "$CONFIG" = "16|3|.\some user|\"$HOST\"|VARNOK Server" ]
check "install through the controller: uninstalled" run "$HOST" -u
# A host deeper than MAX_PATH (260 characters) finds and registers its whole path.
LONG=$(printf 'd%.0s' $(seq 100))
LONGDIR="$LONG\\$LONG\\$LONG"
LONGHOST="$WINDIR\\$LONGDIR\\TarnSvc.exe"
mkdir -p "$DIR/$LONG/$LONG/$LONG"
cp "$DIR"/{TarnSvc.exe,*.dll} "$DIR/$LONG/$LONG/$LONG/"
expect "-i, path of ${#LONGHOST} characters" "The service TarnSvc has been installed under: $LONGHOST
" "$WINE_WARNINGS" 0 "$LONGHOST" -i
config
check "long path registered: $CONFIG" [ "$CONFIG" = "16|3|LocalSystem|\"$LONGHOST\"|VARNOK Server" ]
run "$LONGHOST" -u

# A manager that ends at once every time (the query tool, which exits with 2
# without arguments): after back-offs of 1, 2, 4 and 8 s the service stops
# with a service-specific error, which Windows' recovery actions count as a
# failure, and says why in the event log.
cp "$DIR/scquery.exe" "$DIR/TarnSrv.exe" || die "cannot stage the failing manager"
run "$HOST" -i
check "failing manager: service started" run "$HOST"
check "failing manager: service stopped" within 30 in_state TarnSvc $STOPPED
EXIT=$(scquery exit TarnSvc)
check "failing manager: exit codes $EXIT" [ "$EXIT" = "1066 1" ]
check "failing manager: the stop in the event log" \
    wait_line "$WORK/services.log" 'err:eventlog:.*TarnSrv.exe failed 5 times in a row, the last time it ended with exit code 2 after'
run "$HOST" -u

finish "service host under Wine" "$CHILD_LOG" "$PROBE_LOG"
