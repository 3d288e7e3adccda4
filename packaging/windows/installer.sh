#!/bin/bash
# Makes the Windows installer from the Windows zip: unpacks it, lists what
# the uninstaller removes, and runs makensis on tarn.nsi. Prints the
# installer's path last.
#
# Usage: packaging/windows/installer.sh <zip> <version> <output folder> [account]
#   The version is the installer's own; the upgrade check builds one with a
#   lower version from the same zip, and with the account versions before 1.4
#   registered (LocalSystem) instead of the service's own.
set -euo pipefail
HERE=$(cd "$(dirname "$0")" && pwd)
ZIP=$(realpath "${1:?usage: installer.sh <zip> <version> <output folder>}")
VERSION=${2:?version}
ACCOUNT=${4:+-DSERVICE_ACCOUNT=$4}
OUT=$(mkdir -p "${3:?output folder}" && cd "$3" && pwd)
WORK=$OUT/installer-$VERSION
rm -rf "$WORK"
mkdir -p "$WORK"
unzip -q -d "$WORK" "$ZIP"
STAGE=$(echo "$WORK"/tarn-*-win64)

# What the uninstaller deletes: every file the zip holds, then its folders,
# deepest first. TarnSrv.cfg and the uninstaller itself are handled apart.
{
    (cd "$STAGE" && find . -type f ! -name TarnSrv.cfg | sort) |
        sed -e 's|^\./||' -e 's|/|\\|g' -e 's|.*|Delete "$INSTDIR\\&"|'
    (cd "$STAGE" && find . -mindepth 1 -type d | sort -r) |
        sed -e 's|^\./||' -e 's|/|\\|g' -e 's|.*|RMDir "$INSTDIR\\&"|'
} > "$WORK/remove-files.nsh"

SETUP=$OUT/tarn-$VERSION-win64-setup.exe
makensis -V2 -WX -DVERSION="$VERSION" $ACCOUNT -DSTAGE="$STAGE" -DREMOVE_FILES="$WORK/remove-files.nsh" \
    -DOUTFILE="$SETUP" "$HERE/tarn.nsi" > "$WORK/makensis.log" 2>&1 || { cat "$WORK/makensis.log"; exit 1; }
echo "$SETUP"
