#!/bin/sh
# The cost of starting and stopping packages through zarnpkg: the fixed cost of one package whose
# script does nothing, and a chain of dependent packages. Prints milliseconds per package and,
# when strace is there, how many processes each action spawns.
#
#   bench/startstop.sh [BUILD_DIR]        (default ./build; ROUNDS=5 CHAIN=100 to change)
set -eu

. "$(dirname "$0")/common.sh"
chain=${CHAIN:-100}
# The roots' appliance tools lead to the binaries of this build.
export ZARNPKG_TOOLS_DIR="$build"

# report NAME MS PACKAGES
report() {
    printf '%-34s %6d ms  %8.1f ms/package\n' "$1" "$2" "$(echo "$2 $3" |
        awk '{printf "%.1f", $1 / $2}')"
}

# spawned CMD...: the processes that one run of CMD starts besides its own.
spawned() {
    if ! command -v strace >/dev/null; then
        echo "?"
        return
    fi
    strace -f -q -e trace=none -o "$work/trace" "$@" >/dev/null 2>&1 ||
        { echo "failed: $*" >&2; exit 1; }
    echo $(($(cut -d' ' -f1 "$work/trace" | sort -u | wc -l) - 1))
}

# start_chain: starts pkg0 .. pkgN one by one, base first, as the boot brings a chain up.
start_chain() {
    n=0
    while [ $n -lt "$chain" ]; do
        $all start "pkg$n" >/dev/null 2>&1 || { echo "failed: start pkg$n" >&2; exit 1; }
        n=$((n + 1))
    done
}

# best NAME PACKAGES DO UNDO: the best of $rounds timed runs of DO, each followed by UNDO.
best() {
    low=999999999 i=0
    while [ $i -lt "$rounds" ]; do
        t=$(run_ms $3)
        [ "$t" -lt "$low" ] && low=$t
        $4 >/dev/null 2>&1 || { echo "failed: $4" >&2; exit 1; }
        i=$((i + 1))
    done
    report "$1" "$low" "$2"
}

"$layout" chain "$work/one" 1
"$layout" chain "$work/chain" "$chain"
one="$zarnpkg --root $work/one"
all="$zarnpkg --root $work/chain"

echo "start/stop, best of $rounds runs (chain of $chain packages, pkgN needs pkgN-1)"
best "start, one package" 1 "$one start pkg0" "$one stop pkg0"
$one start pkg0 >/dev/null
best "stop, one package" 1 "$one stop pkg0" "$one start pkg0"
$one stop pkg0 >/dev/null
best "start of the chain, one by one" "$chain" start_chain "$all stop pkg0"
start_chain
# Stopping the base takes the whole chain down in one action, dependants first.
best "stop of the chain by its base" "$chain" "$all stop pkg0" start_chain
best "restart of the chain by its base" "$((chain * 2))" "$all restart pkg0" true

echo "processes spawned by one action"
echo "  start, one package:  $(spawned $one start pkg0)"
echo "  stop, one package:   $(spawned $one stop pkg0)"
echo "  stop of the chain:   $(spawned $all stop pkg0) for $chain packages"
echo "  start of pkg$((chain - 1)) alone: $(spawned $all start "pkg$((chain - 1))")"
