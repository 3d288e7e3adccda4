# Shared by the checks under Wine; sourced, not run. It makes a throwaway
# 64-bit Wine prefix with a wineserver of its own, removed on exit, and gives
# the check helpers. The caller sets DIR (the Linux path of the folder that
# holds the programs and scquery.exe) before running anything there.
#
# Wine differences that every check shares:
# - Exit codes: a Windows exit status is 32 bits; wine hands the low 8 bits
#   to Linux, so -1 reads 255 and -4 reads 252 (the same as on Linux).
# - Output: the C runtime writes stdout/stderr in text mode, so every line
#   ends in CR LF, as on Windows; texts are compared with each LF as CR LF.
# - A new prefix can be left with two services.exe, and services created
#   through one are unknown to the other (OpenServiceW fails with 1060 after
#   a successful CreateServiceW). So the prefix is created first, then the
#   server restarted and booted once.

# Skipped (77) until scripts/windows-toolchain.sh has prepared this machine.
bash "$(dirname "${BASH_SOURCE[0]}")/../../scripts/windows-toolchain.sh" --if-ready > /dev/null || exit 77

export WINEPREFIX WINEARCH=win64 WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
WINEPREFIX=$(mktemp -d /tmp/tarn-wine.XXXXXX) || { echo "no temporary directory" >&2; exit 1; }
WORK=$WINEPREFIX/work
mkdir -p "$WORK"
FAILURES=0
CHECKS=0
CLEANUPS=()

# on_exit <command...>: run when the check ends, before the prefix goes.
on_exit() { CLEANUPS+=("$*"); }
end_prefix() {
    local command
    for command in "${CLEANUPS[@]}"; do eval "$command"; done
    wineserver -k >/dev/null 2>&1
    wineserver -w >/dev/null 2>&1
    rm -rf "$WINEPREFIX"
}
trap end_prefix EXIT

step() { echo "== $* ($(date +%T))"; }
die() { echo "FAIL: $*"; exit 1; }
fail() { echo "FAIL: $*"; FAILURES=$((FAILURES + 1)); }
pass() { CHECKS=$((CHECKS + 1)); }
check() { # check <name> <command...>
    local name=$1; shift
    if "$@"; then pass; else fail "$name"; fi
}

# Wine's service manager starts with the prefix and keeps the stdio of the
# process that started it: services' output and Wine's error-level event log
# land in $WORK/services.log. A persistent wineserver keeps that manager for
# the whole check; otherwise it would end with the last program.
start_prefix() {
    wineboot -i > "$WORK/wineboot.log" 2>&1 || die "wineboot -i failed"
    wineserver -k; wineserver -w
    wineserver -p || die "cannot start wineserver"
    WINEDEBUG=-all,err+eventlog wineboot > "$WORK/services.log" 2>&1 || die "wineboot failed"
}

# run <program> <args...>: runs it under wine in DIR, leaving OUT, ERR, CODE;
# true when it ended with 0.
run() {
    local program=$1; shift
    (cd "$DIR" && wine "$program" "$@" < /dev/null > "$WORK/out" 2> "$WORK/err")
    CODE=$?
    OUT=$(tr -d '\r' < "$WORK/out")
    ERR=$(tr -d '\r' < "$WORK/err")
    [ "$CODE" = 0 ]
}

# expect <name> <out> <err> <code> <program> <args...>: runs it and compares
# both streams with the texts given, LF written as CR LF, and the exit code.
expect() {
    local name=$1 code=$4 ok=1 stream; local -A text=([out]=$2 [err]=$3); shift 4
    run "$@"
    for stream in out err; do
        printf '%s' "${text[$stream]}" | sed -z 's/\n/\r\n/g' | cmp -s - "$WORK/$stream" ||
            { ok=0; fail "$name: std$stream"; od -c "$WORK/$stream" | head -20; }
    done
    [ "$CODE" = "$code" ] || { ok=0; fail "$name: exit code $CODE, expected $code"; }
    [ $ok = 1 ] && pass
}

# within <seconds> <command...>: true as soon as the command is, tried every 0.2 s.
within() {
    local tries=$(($1 * 5)); shift
    until "$@"; do
        tries=$((tries - 1))
        [ $tries -gt 0 ] || return 1
        sleep 0.2
    done
}
scquery() { (cd "$DIR" && wine scquery.exe "$@" < /dev/null | tr -d '\r'); }
# query <service>: STATE and PID from the control manager.
query() { read -r STATE PID < <(scquery state "$1"); }
in_state() { query "$1"; [ "$STATE" = "$2" ]; }
wait_state() { within 10 in_state "$@"; }
STOPPED=1 RUNNING=4 PAUSED=7
config() { CONFIG=$(scquery config TarnSvc); }
alive() { [ "$(scquery alive "$1")" = yes ]; }
ended() { [ "$(scquery alive "$1")" = no ]; }
gone() { within 10 ended "$1"; }
manager_pid() { scquery pid TarnSrv.exe | head -n 1; }
# wait_line <file> <pattern> [seconds]: up to 10 s unless said.
wait_line() { within "${3:-10}" grep -sqE "$2" "$1"; }
# reg_value <key> <name>: the data of a registry value, as reg shows it.
reg_value() { (cd "$DIR" && wine reg query "$1" /v "$2" < /dev/null 2>/dev/null | tr -d '\r' | sed -nE "s/^ +$2 +REG_\w+ +//p"); }
# ping_linux <port> [options...]: the Linux tarn ($TARN) pings a manager.
ping_linux() { local port=$1; shift; "$TARN" ping "$@" "wss://127.0.0.1:$port" > "$WORK/ping.out" 2>&1; }

# finish <name> <logs...>: the summary; the logs are shown when a check failed.
finish() {
    local name=$1 log; shift
    step "$name: $CHECKS passed, $FAILURES failed"
    [ $FAILURES = 0 ] && exit 0
    for log in "$WORK/services.log" "$@"; do
        echo "--- $log"
        cat "$log" 2>/dev/null
    done
    exit 1
}
