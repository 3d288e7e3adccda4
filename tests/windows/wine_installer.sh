#!/bin/bash
# The Windows installer under Wine, in a fresh prefix: a silent install of an
# older version over a log folder a user made first, the upgrade to this one,
# the refusals, the silent uninstall as the README gives it, and an install
# into a folder of the operator's choice. The older installer is made here
# from the same zip with a lower version of its own and the account versions
# before 1.4 registered, LocalSystem, so the upgrade replaces the same
# programs: what it proves is the installer's sequence (stop, remove,
# replace, register under the service's own account, move the identity,
# start) and what it keeps.
#
# Usage: tests/windows/wine_installer.sh <Windows build folder> <Linux tarn>
#
# Where Wine differs from Windows (beyond those in winelib.sh):
# - Wine's netsh accepts firewall commands and does nothing, and Wine has no
#   firewall to show rules; its icacls accepts every command and changes no
#   permission (Wine shows every file as its one user's). The commands the
#   installer ran, with their exit codes, are checked in its log instead.
# - Wine runs every service as its one user, whatever account it is
#   registered under: the configuration shows NT SERVICE\TarnSvc, but the
#   manager reads and writes that user's application data, not the account's
#   profile. So the identity a LocalSystem service kept is put where Windows
#   keeps it (LocalSystem's profile) by the check itself, the check sees the
#   installer move it to the service's profile, and that the manager still
#   serves the pinned identity holds under Wine whatever the move did.
# - Wine's control manager keeps no recovery actions and knows neither the
#   delayed start nor the flag for stops with an error code: it answers the
#   queries of all three with error 124, so what TarnSvc -i registers there
#   is read back by the Linux tests (tst_tarnsvc), not here.
# - Wine makes no junction (mklink /J fails) and shows a Linux symbolic link
#   as a plain folder, so the refusal of a junction or link (exit code 9) is
#   not run here; that of a hard link below the log folder is (a Linux hard
#   link is one to Wine).
# - NSIS reads an in-place uninstall (_?=) only from an unquoted path, and
#   wine quotes an argument that holds a space, so the uninstall command is
#   run from a batch file, as a script on Windows would run it.
set -uo pipefail
HERE=$(cd "$(dirname "$0")" && pwd)
BUILD=$(cd "${1:?usage: wine_installer.sh <Windows build folder> <Linux tarn>}" && pwd)
TARN=${2:?Linux tarn}
source "$HERE/winelib.sh"
VERSION=$("$TARN" --version | awk '{print $NF}')
SETUP=$(echo "$BUILD"/tarn-"$VERSION"-win64-setup.exe)
[ -f "$SETUP" ] || die "no installer in $BUILD"
OLD_SETUP=$(bash "$HERE/../../packaging/windows/installer.sh" "$BUILD/tarn-$VERSION-win64.zip" 0.9.0 "$WORK/old" LocalSystem | tail -n 1)
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
IDENTITY_PART="AppData/Local/VARNOK Labs/VARNOK Manager"
SYSTEM_IDENTITY="$WINEPREFIX/drive_c/windows/system32/config/systemprofile/$IDENTITY_PART"
SERVICE_IDENTITY="$WINEPREFIX/drive_c/windows/ServiceProfiles/TarnSvc/$IDENTITY_PART"
# What the installer runs to make a folder the administrators', in order.
LOCK_STEPS=('icacls "%s" /setowner *S-1-5-32-544' 'icacls "%s" /reset'
    'icacls "%s" /inheritance:r /grant:r *S-1-5-18:F *S-1-5-32-544:F *S-1-5-32-545:RX'
    'icacls "%s" /setowner *S-1-5-32-544 /T /C /L'
    'icacls "%s" /grant:r *S-1-5-18:(OI)(CI)F *S-1-5-32-544:(OI)(CI)F *S-1-5-32-545:(OI)(CI)RX')
LOCK_CHILDREN='icacls "%s\*" /reset /T /C /L'

# run_batch <command line>: as a batch file would run it, unquoted.
run_batch() {
    printf '@%s\r\n@exit /b %%errorlevel%%\r\n' "$1" > "$DIR/run.bat"
    run cmd.exe /c run.bat
}
entry() { reg_value "$ENTRY" "$1"; }
# ran <command>: the log holds the command, answered with exit code 0.
ran() { tr -d '\r' < "$LOG" | grep -A 20 -Fx -- "> $1" | grep -m 1 '^exit ' | grep -qx 'exit 0'; }
serving() { within 40 ping_linux "$PORT"; }
identity() { cat "$WINEPREFIX"/drive_c/users/*/"$IDENTITY_PART/identity.crt" 2>/dev/null; }
# locked <folder> [children]: the installer made the folder the administrators'.
locked() {
    local step
    for step in "${LOCK_STEPS[@]}"; do ran "$(printf "$step" "$1")" || return 1; done
    [ -z "${2:-}" ] || ran "$(printf "$LOCK_CHILDREN" "$1")"
}
# What is left under the programs' folder.
left() { find "$PROGRAMS" -mindepth 1 -printf '%P\n' 2>/dev/null; }
# At most the uninstaller run in place, which its hidden command removes.
only_uninstaller_left() { [ -z "$1" ] || [ "$1" = Uninstall.exe ]; }

step "1. silent install of an older version, over a log folder a user made"
# Users may create folders in ProgramData: one made before the install, with
# a file and a folder anyone may write, is taken over.
mkdir -p "$DATA/a user's" && echo note > "$DATA/note.txt" && chmod 777 "$DATA/a user's" && chmod 666 "$DATA/note.txt" ||
    die "cannot make the user's log folder"
run "$OLD_SETUP" /S /PORT="$PORT"
check "the installer ends with 0: $CODE $ERR" [ "$CODE" = 0 ]
{ unzip -Z1 "$BUILD/tarn-$VERSION-win64.zip" | grep -v '/$' | sed 's|^[^/]*/||'; echo Uninstall.exe; } | sort > "$WORK/expected-files"
check "the zip's files and the uninstaller are in Program Files" \
    diff -u "$WORK/expected-files" <(cd "$PROGRAMS" && find . -type f | sed 's|^\./||' | sort)
check "TarnSrv.cfg names the port given" grep -qx "PortNr = $PORT" <(tr -d '\r' < "$PROGRAMS/TarnSrv.cfg")
check "the service runs" wait_state TarnSvc $RUNNING
config
check "registered by TarnSvc.exe as LocalSystem, own process, started with Windows: $CONFIG" \
    [ "$CONFIG" = "16|2|LocalSystem|\"$WINDIR\\TarnSvc.exe\"|VARNOK Server" ]
check "the Linux tarn pings the installed manager" serving
check "and pinned its identity" grep -q "^127.0.0.1:$PORT " "$XDG_CONFIG_HOME/tarn/known_servers"
check "the uninstall entry: version $(entry DisplayVersion)" [ "$(entry DisplayVersion)" = 0.9.0 ]
check "the uninstall entry: publisher" [ "$(entry Publisher)" = "VARNOK Labs" ]
check "the Start-menu shortcut" [ -f "$SHORTCUT" ]

step "2. the firewall rules and the locked folders, from the installer's log"
check "the session rule" ran "netsh advfirewall firewall add rule name=\"Tarn session\" dir=in action=allow program=\"$WINDIR\\TarnSrv.exe\" enable=yes protocol=TCP localport=$PORT"
check "the discovery rule" ran "netsh advfirewall firewall add rule name=\"Tarn discovery\" dir=in action=allow program=\"$WINDIR\\TarnSrv.exe\" enable=yes protocol=UDP localport=49152-49172"
check "the user's log folder noticed" grep -q '^C:\\ProgramData\\Tarn was there, owned by S-1-5-[-0-9]*: taken over' <(tr -d '\r' < "$LOG")
check "the log folder and all in it made the administrators' before the log" locked 'C:\ProgramData\Tarn' children
check "the log written only after that" [ "$(tr -d '\r' < "$LOG" | head -n 2 | tail -n 1)" = "> $(printf "${LOCK_STEPS[0]}" 'C:\ProgramData\Tarn')" ]
check "the programs' folder made the administrators'" locked "$WINDIR"
check "the service registered through TarnSvc.exe -i" ran "\"$WINDIR\\TarnSvc.exe\" -i \"LocalSystem\""
# Windows keeps a LocalSystem service's identity in that account's profile.
mkdir -p "$SYSTEM_IDENTITY" && cp "$WINEPREFIX"/drive_c/users/*/"$IDENTITY_PART"/identity.* "$SYSTEM_IDENTITY/" ||
    die "cannot put the identity where LocalSystem keeps it"

step "3. upgrade in place"
cp "$PROGRAMS/TarnSrv.cfg" "$WORK/cfg-before"
identity > "$WORK/identity-before"
OLD_MANAGER=$(manager_pid)
run "$SETUP" /S
check "the upgrade ends with 0: $CODE $ERR" [ "$CODE" = 0 ]
check "it stopped the service first" ran "\"$WINDIR\\TarnSvc.exe\" -t"
check "and removed it, to register it again" ran "\"$WINDIR\\TarnSvc.exe\" -u"
check "registered under its own account" ran "\"$WINDIR\\TarnSvc.exe\" -i \"NT SERVICE\\TarnSvc\""
check "its account may change what is in the log folder, and only list and add to the folder" \
    ran 'icacls "C:\ProgramData\Tarn" /grant "NT SERVICE\TarnSvc:(OI)(CI)(IO)M" "NT SERVICE\TarnSvc:(RX,WD,AD)"'
check "the identity moved to the service's profile" cmp -s "$WORK/identity-before" "$SERVICE_IDENTITY/identity.crt"
check "with its key" [ -s "$SERVICE_IDENTITY/identity.key" ]
check "and gone from LocalSystem's" [ ! -e "$SYSTEM_IDENTITY/identity.key" ]
check "and gone from LocalSystem's" [ ! -e "$SYSTEM_IDENTITY/identity.crt" ]
check "the service runs again" wait_state TarnSvc $RUNNING
check "the old manager is gone" gone "${OLD_MANAGER:-0}"
check "a new manager process" [ -n "$(manager_pid)" ]
check "a new manager process" [ "$(manager_pid)" != "$OLD_MANAGER" ]
check "the upgraded manager serves the pinned identity on the same port" serving
check "the identity is unchanged" cmp -s "$WORK/identity-before" <(identity)
check "TarnSrv.cfg is kept byte for byte" cmp -s "$WORK/cfg-before" "$PROGRAMS/TarnSrv.cfg"
check "the uninstall entry names $VERSION" [ "$(entry DisplayVersion)" = "$VERSION" ]
config
check "its own account, started with Windows: $CONFIG" [ "$CONFIG" = "16|2|NT SERVICE\\TarnSvc|\"$WINDIR\\TarnSvc.exe\"|VARNOK Server" ]

step "3b. the manager killed under the service comes back (the first back-off is 1 s)"
KILLED=$(manager_pid)
KILLED_AT=$(date +%s%N)
(cd "$DIR" && wine taskkill /F /PID "${KILLED:-0}" < /dev/null > "$WORK/taskkill.out" 2>&1)
check "the killed manager is gone" gone "${KILLED:-0}"
check "a new manager answers after the kill" serving
SECONDS_TO_SERVE=$(( ($(date +%s%N) - KILLED_AT) / 1000000000 ))
echo "served again ${SECONDS_TO_SERVE} s after the kill"
check "within 10 s of the kill" [ "$SECONDS_TO_SERVE" -lt 10 ]
check "in a new process" [ -n "$(manager_pid)" ]
check "in a new process" [ "$(manager_pid)" != "$KILLED" ]
check "the service still runs" in_state TarnSvc $RUNNING

step "4. refusals: a clear message and their own exit code"
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

step "5. silent uninstall, run as the README says"
cp "$PROGRAMS/Uninstall.exe" "$DIR/Uninstall.exe" # for step 6
UNINSTALL=$(sed -n 's/^    \("[^"]*\\Uninstall.exe" .*\)$/\1/p' "$HERE/../../README.md")
check "the README's command is the uninstall entry's: $UNINSTALL" [ "$UNINSTALL" = "$(entry QuietUninstallString)" ]
run_batch "$UNINSTALL"
LEFT=$(left)
check "the uninstaller ends with 0: $CODE $ERR" [ "$CODE" = 0 ]
check "when it returns, all but itself removed: $LEFT" only_uninstaller_left "$LEFT"
check "and itself and the folder within 40 s" within 40 [ ! -e "$PROGRAMS" ]
check "no service" in_state TarnSvc none
check "no uninstall entry" [ -z "$(entry DisplayVersion)" ]
check "no shortcut" [ ! -e "$SHORTCUT" ]
check "the firewall rules removed" ran 'netsh advfirewall firewall delete rule name="Tarn session"'
check "the identity stays" cmp -s "$WORK/identity-before" "$SERVICE_IDENTITY/identity.crt"
check "the manager's log stays" [ -s "$DATA/TarnSrvSvc.html" ]

step "6. uninstalling what is not installed"
run_batch "Uninstall.exe /S _?=$WINDIR"
check "exit code $CODE, expected 5" [ "$CODE" = 5 ]
check "says '$ERR'" [ "$ERR" = "Tarn is not installed." ]

step "7. a file or a hard link in the way, then an install into a folder of the operator's choice"
mv "$DATA" "$DATA.kept" && touch "$DATA" || die "cannot put a file in the log folder's place"
run "$SETUP" /S /PORT="$PORT" /D=C:\\Tarn
check "a file where the log folder goes: exit code $CODE, expected 7" [ "$CODE" = 7 ]
check "says '$ERR'" [ "$ERR" = 'C:\ProgramData\Tarn is not a folder and cannot be made one.' ]
rm "$DATA" && mv "$DATA.kept" "$DATA" || die "cannot put the log folder back"
# Resetting a hard link's permissions resets those of the file it shares.
ln "$WINEPREFIX/drive_c/windows/win.ini" "$DATA/linked.ini" || die "cannot make the hard link"
run "$SETUP" /S /PORT="$PORT" /D=C:\\Tarn
check "a hard link below the log folder: exit code $CODE, expected 9" [ "$CODE" = 9 ]
check "says '$ERR'" [ "$ERR" = 'C:\ProgramData\Tarn holds a hard link, C:\ProgramData\Tarn\linked.ini, which Tarn does not follow; remove it and run the installer again.' ]
rm "$DATA/linked.ini"
run "$SETUP" /S /PORT="$PORT" /D=C:\\Tarn
check "the installer ends with 0: $CODE $ERR" [ "$CODE" = 0 ]
check "C:\\Tarn made the administrators' before the programs were copied" locked 'C:\Tarn'
config
check "registered from there: $CONFIG" [ "$CONFIG" = "16|2|NT SERVICE\\TarnSvc|\"C:\\Tarn\\TarnSvc.exe\"|VARNOK Server" ]
check "the service runs" wait_state TarnSvc $RUNNING
check "and serves" serving

finish "the installer under Wine" "$LOG" "$WORK/ping.out"
