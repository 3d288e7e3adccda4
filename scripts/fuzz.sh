#!/usr/bin/env bash
# Builds the libFuzzer targets of fuzz/ with clang, AddressSanitizer and
# UndefinedBehaviorSanitizer, runs each for FUZZ_SECONDS (default 60) on a copy
# of its seed corpus, and fails on any crash, leak, hang or sanitizer report.
# Prints the executions run per target. Crashing inputs are kept under
# build-fuzz/artifacts/.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh

seconds=${FUZZ_SECONDS:-60}
build=build-fuzz
artifacts=$build/artifacts
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake -S . -B "$build" -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DTARN_FUZZ=ON >"$work/configure.log" \
    || { cat "$work/configure.log"; exit 1; }
cmake --build "$build" --target fuzzers --parallel 2

mapfile -t targets < <(find fuzz/corpus -mindepth 1 -maxdepth 1 -type d -printf '%f\n' | sort)
rm -rf "$artifacts"
mkdir -p "$artifacts"

export ASAN_OPTIONS=detect_leaks=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1

# The discovery target binds a UDP socket (it never sends). In a private
# network namespace that socket cannot take a port another program wants.
isolate=()
if unshare -n true 2>/dev/null; then
    isolate=(unshare -n)
fi

# stat_of <log> <name>: a value from libFuzzer's final statistics.
stat_of() {
    sed -n "s/^stat::$2: *//p" "$1" | tail -n 1
}

# A sanitizer can report without libFuzzer noticing, for example at exit.
has_report() {
    grep -qE 'ERROR: (AddressSanitizer|LeakSanitizer|libFuzzer)|runtime error:|Property violated' "$1"
}

# run_target <name>: fuzzes one target; its log lands in $work/<name>.log.
run_target() {
    local name=$1 corpus=$work/corpus-$1 log=$work/$1.log
    cp -r "fuzz/corpus/$name" "$corpus"
    mkdir -p "$artifacts/$name"
    "${isolate[@]}" "$build/fuzz/$name" "$corpus" \
        -max_total_time="$seconds" -rss_limit_mb=2048 -timeout=10 -print_final_stats=1 \
        -artifact_prefix="$artifacts/$name/" >"$log" 2>&1 && ! has_report "$log"
}

failed=()
rows=()
for name in "${targets[@]}"; do
    echo "Fuzzing $name for $seconds s..."
    result=ok
    if ! run_target "$name"; then
        result=FAILED
        failed+=("$name")
        tail -n 60 "$work/$name.log"
    fi
    log=$work/$name.log
    rows+=("$(printf '%-22s %8s %14s %10s %12s  %s' "$name" "$seconds" \
        "$(stat_of "$log" number_of_executed_units)" "$(stat_of "$log" new_units_added)" \
        "$(stat_of "$log" peak_rss_mb)" "$result")")
done

echo
printf '%-22s %8s %14s %10s %12s  %s\n' target seconds executions new_units peak_rss_mb result
printf '%s\n' "${rows[@]}"

if [ ${#failed[@]} -ne 0 ]; then
    echo "Fuzzing found problems in: ${failed[*]} (inputs under $artifacts/)" >&2
    exit 1
fi
