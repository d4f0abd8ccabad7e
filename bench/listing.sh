#!/bin/sh
# Listing, status and file check at scale, each beside the yardstick it is held to, measured in
# one run with the two commands alternating. Prints one ratio per target.
#
#   bench/listing.sh [BUILD_DIR]        (default ./build; ROUNDS=5 QAR_MIB=300 to change)
#
# Lays out in a temporary folder: a 10,000-package registry without scripts, a 2,000-package and
# a 100-package scripted one, a dpkg status file of 10,000 packages, and a QAR of 300 MB whose
# payload is a real gzip-compressed tar (of random bytes, so it hardly shrinks). WORK=DIR keeps
# the layout in DIR for the next run instead.
set -eu

. "$(dirname "$0")/common.sh"
qar_mib=${QAR_MIB:-300}

# compare NAME TARGET CMD_A -- CMD_B: alternates A and B $rounds times, prints the best of each
# and the ratio A/B against the target.
compare() {
    name=$1 target=$2
    shift 2
    a="" b=""
    for arg in "$@"; do
        if [ "$arg" = "--" ]; then b=" "; continue; fi
        if [ -z "$b" ]; then a="$a '$arg'"; else b="$b '$arg'"; fi
    done
    best_a=999999999 best_b=999999999
    i=0
    while [ $i -lt "$rounds" ]; do
        ta=$(eval run_ms "$a")
        tb=$(eval run_ms "$b")
        [ "$ta" -lt "$best_a" ] && best_a=$ta
        [ "$tb" -lt "$best_b" ] && best_b=$tb
        i=$((i + 1))
    done
    [ "$best_b" -gt 0 ] || best_b=1
    awk -v n="$name" -v a="$best_a" -v b="$best_b" -v t="$target" 'BEGIN {
        r = a / b
        printf "%-44s %7d ms / %7d ms = %5.2fx (target <= %s) %s\n", n, a, b, r, t,
            (r <= t ? "ok" : "MISSED")
    }'
}

# peak_kib CMD...: the peak resident size of CMD in KiB.
peak_kib() {
    /usr/bin/time -f %M "$@" 2>&1 >/dev/null | tail -n 1
}

if [ ! -f "$work/big.qar" ]; then
    echo "laying out in $work ..."
    "$layout" registry "$work/r10000" 10000 0
    "$layout" registry "$work/s2000" 2000 2000
    "$layout" registry "$work/s100" 100 100
    "$layout" dpkg "$work/status" 10000
    mkdir -p "$work/dpkg/updates" "$work/qar/payload"
    mv "$work/status" "$work/dpkg/status"
    head -c $((qar_mib * 1024 * 1024)) /dev/urandom >"$work/qar/payload/data"
    tar cf - -C "$work/qar/payload" data | gzip -1 >"$work/qar/package.tgz"
    sum=$(md5sum "$work/qar/package.tgz" | cut -d' ' -f1)
    printf 'package="big"\nversion="1.0"\ndescription="bench"\nmaintainer="bench"\narch="noarch"\nchecksum="%s"\n' \
        "$sum" >"$work/qar/INFO"
    tar cf "$work/big.qar" -C "$work/qar" INFO package.tgz
    rm -rf "$work/qar"
fi

# The scripts of the scripted registry, by hand, two at a time.
find "$work/s2000/var/packages" -path '*/scripts/start-stop-status' | sort >"$work/scripts"
by_hand() {
    # Stopped packages answer 3, so xargs reports a failed command: that is their status.
    xargs -P2 -I{} /bin/sh {} status <"$work/scripts" || :
}

compare "list, 10000 packages / dpkg-query -W" 5 \
    "$zarnpkg" --root "$work/r10000" list -- dpkg-query --admindir="$work/dpkg" -W
compare "list, 2000 scripted / their scripts by hand" 1.5 \
    "$zarnpkg" --root "$work/s2000" list -- by_hand
compare "status pkg7 among 2000 / among 100" 3 \
    "$zarnpkg" --root "$work/s2000" status pkg7 -- "$zarnpkg" --root "$work/s100" status pkg7
compare "check 300 MB QAR / tar xOf | md5sum" 1.15 \
    "$zarnpkg" --root "$work/r10000" check "$work/big.qar" -- \
    sh -c "tar xOf '$work/big.qar' package.tgz | md5sum"
# Not a target: the floor of any check that looks inside the payload, which must inflate it.
compare "check 300 MB QAR / tar xOf | gzip -dc" 1.15 \
    "$zarnpkg" --root "$work/r10000" check "$work/big.qar" -- \
    sh -c "tar xOf '$work/big.qar' package.tgz | gzip -dc"
echo "list, 10000 packages, peak memory: $(($(peak_kib "$zarnpkg" --root "$work/r10000" list) / 1024)) MiB (target <= 40)"
t=$(run_ms "$zarnpkg" --root "$work/r10000" order)
echo "order, 10000 packages: $t ms (190 ms before)"
"$build/bench/bench_spawn" 2000
