#!/bin/sh
# The cost of starting and stopping packages through zarnpkg: the fixed cost of one package whose
# script does nothing, and a chain of dependent packages. Prints milliseconds per package and,
# when strace is there, how many processes each action spawns.
#
#   bench/startstop.sh [BUILD_DIR]        (default ./build; ROUNDS=5 CHAIN=100 to change)
set -eu

build=$(cd "${1:-build}" && pwd)
zarnpkg="$build/zarnpkg"
layout="$build/bench/bench_layout"
rounds=${ROUNDS:-5}
chain=${CHAIN:-100}
work=$(mktemp -d /tmp/zarnpkg-startstop.XXXXXX)
trap 'rm -rf "$work"' EXIT INT TERM
# The roots' appliance tools lead to the binaries of this build.
export ZARNPKG_TOOLS_DIR="$build"

now() { date +%s%N; }

# ms CMD...: wall time of one run of CMD in milliseconds; a failed run ends the bench.
ms() {
    t0=$(now)
    "$@" >/dev/null 2>&1 || { echo "failed: $*" >&2; exit 1; }
    echo $((($(now) - t0) / 1000000))
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

# best NAME PACKAGES CMD...: the best of $rounds runs of CMD, after each run `$undo`.
best() {
    name=$1 packages=$2
    shift 2
    low=999999999 i=0
    while [ $i -lt "$rounds" ]; do
        t=$(ms "$@")
        [ "$t" -lt "$low" ] && low=$t
        [ -n "$undo" ] && ms $undo >/dev/null
        i=$((i + 1))
    done
    printf '%-34s %6d ms  %8.1f ms/package\n' "$name" "$low" "$(echo "$low $packages" |
        awk '{printf "%.1f", $1 / $2}')"
}

"$layout" chain "$work/one" 1
"$layout" chain "$work/chain" "$chain"
one="$zarnpkg --root $work/one"
all="$zarnpkg --root $work/chain"
last="pkg$((chain - 1))"

echo "start/stop, best of $rounds runs (chain of $chain packages, pkgN needs pkgN-1)"
undo="$one stop pkg0"
best "start, one package" 1 $one start pkg0
undo="$one start pkg0"
$one start pkg0 >/dev/null
best "stop, one package" 1 $one stop pkg0
$one stop pkg0 >/dev/null

# The chain comes up a package at a time, base first, as the boot does; stopping its base then
# takes all of it down in one action, dependants first.
undo=""
low=999999999 low_stop=999999999 i=0
while [ $i -lt "$rounds" ]; do
    t0=$(now)
    n=0
    while [ $n -lt "$chain" ]; do
        $all start "pkg$n" >/dev/null 2>&1 || { echo "failed: start pkg$n" >&2; exit 1; }
        n=$((n + 1))
    done
    t=$((($(now) - t0) / 1000000))
    [ "$t" -lt "$low" ] && low=$t
    t=$(ms $all stop pkg0)
    [ "$t" -lt "$low_stop" ] && low_stop=$t
    i=$((i + 1))
done
printf '%-34s %6d ms  %8.1f ms/package\n' "start of the chain, one by one" "$low" \
    "$(echo "$low $chain" | awk '{printf "%.1f", $1 / $2}')"
printf '%-34s %6d ms  %8.1f ms/package\n' "stop of the chain by its base" "$low_stop" \
    "$(echo "$low_stop $chain" | awk '{printf "%.1f", $1 / $2}')"
n=0
while [ $n -lt "$chain" ]; do
    $all start "pkg$n" >/dev/null 2>&1
    n=$((n + 1))
done
undo=""
best "restart of the chain by its base" "$((chain * 2))" $all restart pkg0

echo "processes spawned by one action"
echo "  start, one package:  $(spawned $one start pkg0)"
echo "  stop, one package:   $(spawned $one stop pkg0)"
echo "  stop of the chain:   $(spawned $all stop pkg0) for $chain packages"
echo "  start of $last alone: $(spawned $all start "$last")"
