#!/bin/bash
# The Windows installer under Wine, in a fresh prefix: a silent install of an
# older version, the upgrade to this one, the refusals, and the silent
# uninstall. The older installer is made here from the same zip with a lower
# version of its own, so the upgrade replaces the same programs: what it
# proves is the installer's sequence (stop, replace, start) and what it keeps.
#
# Usage: tests/windows/wine_installer.sh <Windows build folder> <Linux tarn>
#
# Where Wine differs from Windows (beyond those in winelib.sh):
# - Wine's netsh accepts firewall commands and does nothing, and Wine has no
#   firewall to show rules; the commands the installer ran, with their exit
#   codes, are checked in its log instead.
# - The service's LocalSystem account is Wine's one user, so the manager's
#   identity lands in that user's application data.
# - NSIS reads an in-place uninstall (_?=) only from an unquoted path, and
#   wine quotes an argument that holds a space, so the uninstaller is run
#   from a batch file, as a script on Windows would run it.
set -uo pipefail
HERE=$(cd "$(dirname "$0")" && pwd)
BUILD=$(cd "${1:?usage: wine_installer.sh <Windows build folder> <Linux tarn>}" && pwd)
TARN=${2:?Linux tarn}
source "$HERE/winelib.sh"
VERSION=$("$TARN" --version | awk '{print $NF}')
SETUP=$(echo "$BUILD"/tarn-"$VERSION"-win64-setup.exe)
[ -f "$SETUP" ] || die "no installer in $BUILD"
OLD_SETUP=$(bash "$HERE/../../packaging/windows/installer.sh" "$BUILD/tarn-$VERSION-win64.zip" 0.9.0 "$WORK/old" | tail -n 1)
[ -f "$OLD_SETUP" ] || die "cannot make the older installer"
PORT=$(bash "$HERE/../../scripts/free-port.sh")

export XDG_CONFIG_HOME=$WORK/linux/config XDG_DATA_HOME=$WORK/linux/data
mkdir -p "$XDG_CONFIG_HOME" "$XDG_DATA_HOME"
start_prefix
DIR=$WORK/tools
mkdir -p "$DIR" && cp "$BUILD/bin/scquery.exe" "$DIR/" || die "cannot stage scquery.exe"

WINDIR='C:\Program Files\Tarn'
PROGRAMS="$WINEPREFIX/drive_c/Program Files/Tarn"
DATA="$WINEPREFIX/drive_c/ProgramData/Tarn"
SHORTCUT="$WINEPREFIX/drive_c/ProgramData/Microsoft/Windows/Start Menu/Programs/Tarn/Tarn Manager.lnk"
ENTRY='HKLM\Software\Microsoft\Windows\CurrentVersion\Uninstall\Tarn'
LOG=$DATA/install.log

# run_batch <command line>: as a batch file would run it, unquoted.
run_batch() {
    printf '@%s\r\n@exit /b %%errorlevel%%\r\n' "$1" > "$DIR/run.bat"
    run cmd.exe /c run.bat
}
entry() { reg_value "$ENTRY" "$1"; }
# ran <command>: the log holds the command, answered with exit code 0.
ran() { tr -d '\r' < "$LOG" | grep -A 20 -Fx -- "> $1" | grep -m 1 '^exit ' | grep -qx 'exit 0'; }
serving() { within 40 ping_linux "$PORT"; }
identity() { cat "$WINEPREFIX"/drive_c/users/*/AppData/Local/"VARNOK Labs/VARNOK Manager/identity.crt" 2>/dev/null; }

step "1. silent install of an older version"
run "$OLD_SETUP" /S /PORT="$PORT"
check "the installer ends with 0: $CODE $ERR" [ "$CODE" = 0 ]
{ unzip -Z1 "$BUILD/tarn-$VERSION-win64.zip" | grep -v '/$' | sed 's|^[^/]*/||'; echo Uninstall.exe; } | sort > "$WORK/expected-files"
check "the zip's files and the uninstaller are in Program Files" \
    diff -u "$WORK/expected-files" <(cd "$PROGRAMS" && find . -type f | sed 's|^\./||' | sort)
check "TarnSrv.cfg names the port given" grep -qx "PortNr = $PORT" <(tr -d '\r' < "$PROGRAMS/TarnSrv.cfg")
check "the service runs" wait_state TarnSvc $RUNNING
config
check "registered by TarnSvc.exe, started with Windows: $CONFIG" \
    [ "$CONFIG" = "272|2|LocalSystem|\"$WINDIR\\TarnSvc.exe\"|VARNOK Server" ]
check "the Linux tarn pings the installed manager" serving
check "and pinned its identity" grep -q "^127.0.0.1:$PORT " "$XDG_CONFIG_HOME/tarn/known_servers"
check "the uninstall entry: version $(entry DisplayVersion)" [ "$(entry DisplayVersion)" = 0.9.0 ]
check "the uninstall entry: publisher" [ "$(entry Publisher)" = "VARNOK Labs" ]
check "the Start-menu shortcut" [ -f "$SHORTCUT" ]

step "2. the firewall rules, from the installer's log"
check "the session rule" ran "netsh advfirewall firewall add rule name=\"Tarn session\" dir=in action=allow program=\"$WINDIR\\TarnSrv.exe\" enable=yes protocol=TCP localport=$PORT"
check "the discovery rule" ran "netsh advfirewall firewall add rule name=\"Tarn discovery\" dir=in action=allow program=\"$WINDIR\\TarnSrv.exe\" enable=yes protocol=UDP localport=49152-49172"
check "the log folder locked to administrators" ran 'icacls "C:\ProgramData\Tarn" /inheritance:r /grant:r *S-1-5-18:(OI)(CI)F *S-1-5-32-544:(OI)(CI)F *S-1-5-32-545:(OI)(CI)RX'
check "the service registered through TarnSvc.exe -i" ran "\"$WINDIR\\TarnSvc.exe\" -i"

step "3. upgrade in place"
cp "$PROGRAMS/TarnSrv.cfg" "$WORK/cfg-before"
identity > "$WORK/identity-before"
OLD_MANAGER=$(manager_pid)
run "$SETUP" /S
check "the upgrade ends with 0: $CODE $ERR" [ "$CODE" = 0 ]
check "it stopped the service first" ran "\"$WINDIR\\TarnSvc.exe\" -t"
check "the service runs again" wait_state TarnSvc $RUNNING
check "the old manager is gone" gone "${OLD_MANAGER:-0}"
check "a new manager process" [ -n "$(manager_pid)" ] && [ "$(manager_pid)" != "$OLD_MANAGER" ]
check "the upgraded manager serves the pinned identity on the same port" serving
check "the identity is unchanged" cmp -s "$WORK/identity-before" <(identity)
check "TarnSrv.cfg is kept byte for byte" cmp -s "$WORK/cfg-before" "$PROGRAMS/TarnSrv.cfg"
check "the uninstall entry names $VERSION" [ "$(entry DisplayVersion)" = "$VERSION" ]
config
check "still started with Windows: $CONFIG" [ "$CONFIG" = "272|2|LocalSystem|\"$WINDIR\\TarnSvc.exe\"|VARNOK Server" ]

step "5. refusals: a clear message and their own exit code"
while IFS='|' read -r name setup option code message; do
    run "$setup" /S $option
    check "$name: exit code $CODE, expected $code" [ "$CODE" = "$code" ]
    check "$name: says '$ERR'" [ "$ERR" = "$message" ]
done <<EOF_REFUSALS
the same version again|$SETUP||3|Tarn $VERSION is already installed in $WINDIR.
an older version over this one|$OLD_SETUP||4|Tarn $VERSION is installed in $WINDIR, newer than this installer's 0.9.0.
a port that is no number|$SETUP|/PORT=80a|6|/PORT needs a port number from 1 to 65535, not '80a'.
a port past the last|$SETUP|/PORT=65536|6|/PORT needs a port number from 1 to 65535, not '65536'.
EOF_REFUSALS
check "the refusals left the service running" wait_state TarnSvc $RUNNING

step "4. silent uninstall"
cp "$PROGRAMS/Uninstall.exe" "$DIR/Uninstall.exe"
run_batch "$(entry QuietUninstallString)"
check "the uninstaller ends with 0: $CODE $ERR" [ "$CODE" = 0 ]
query TarnSvc
check "no service: $STATE" [ "$STATE" = none ]
check "nothing left under Program Files" within 10 test ! -e "$PROGRAMS"
check "no uninstall entry" [ -z "$(entry DisplayVersion)" ]
check "no shortcut" [ ! -e "$SHORTCUT" ]
check "the firewall rules removed" ran 'netsh advfirewall firewall delete rule name="Tarn session"'
check "the identity stays" cmp -s "$WORK/identity-before" <(identity)
check "the manager's log stays" [ -s "$DATA/TarnSrvSvc.html" ]

step "5. uninstalling what is not installed"
run_batch "Uninstall.exe /S _?=$WINDIR"
check "exit code $CODE, expected 5" [ "$CODE" = 5 ]
check "says '$ERR'" [ "$ERR" = "Tarn is not installed." ]

finish "the installer under Wine" "$LOG" "$WORK/ping.out"
