# Sourced by the scripts and tests that run one program in the background:
# $work is a private folder, and on exit the program whose process id is in
# $job has ended and the folder is gone.
work=$(mktemp -d)
job=""
end_job() {
    if [ -n "$job" ]; then kill "$job" 2>/dev/null; wait "$job" 2>/dev/null || true; fi
    rm -rf "$work"
}
trap end_job EXIT
