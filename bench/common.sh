# Shared by the bench scripts (sourced after `set -eu`, with the build folder as "$1").

# The build under test, its tools, the rounds of each measure and a work folder that goes at exit
# (or WORK=DIR, kept for the next run).
build=$(cd "${1:-build}" && pwd)
zarnpkg="$build/zarnpkg"
layout="$build/bench/bench_layout"
rounds=${ROUNDS:-5}
if [ -n "${WORK:-}" ]; then
    work=$WORK
    mkdir -p "$work"
else
    work=$(mktemp -d "/tmp/zarnpkg-$(basename "$0" .sh).XXXXXX")
    trap 'rm -rf "$work"' EXIT INT TERM
fi

now() { date +%s%N; }

# run_ms CMD...: the wall time of one run of CMD in milliseconds; a failed run ends the bench.
run_ms() {
    t0=$(now)
    "$@" >/dev/null 2>&1 || { echo "failed: $*" >&2; exit 1; }
    echo $((($(now) - t0) / 1000000))
}
