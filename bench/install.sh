#!/bin/sh
# zarnpkg install and uninstall beside dpkg -i and -r of the same payload, each into a root of
# its own, the commands alternating run by run; and the large package beside the floor of doing
# its two tar extractions and the move by hand. Prints medians and ratios, and the programs that
# one zarnpkg install and uninstall start (when strace is there).
#   bench/install.sh [RUNS] [FILES] [MB]      (build first: scripts/build.sh zarnpkg-bin ...)
set -eu
here=$(cd "$(dirname "$0")/.." && pwd)
. "$here/bench/dpkg_baseline.sh"
zarnpkg=${ZARNPKG:-${BUILD_DIR:-$here/build}/zarnpkg}
runs=${1:-11}
files=${2:-10000}
mb=${3:-200}
work=$(mktemp -d /tmp/zarnpkg-bench.XXXXXX)
trap 'rm -rf "$work"' EXIT

# make_qar NAME PAYLOAD_DIR OUT.qar: the same payload as dpkg_make_deb's, no scripts.
make_qar() {
    mkdir -p "$work/src-$1/package"
    cp -a "$2/." "$work/src-$1/package/"
    printf 'package="%s"\nversion="1.0"\narch="noarch"\ndisplayname="%s"\ndescription="bench"\nmaintainer="bench"\n' \
        "$1" "$1" >"$work/src-$1/INFO"
    "$zarnpkg" pack "$work/src-$1" -o "$3" >/dev/null
}

median_of() { echo "$1" | tr ' ' '\n' | grep . | dpkg_median; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", (b > 0 ? a / b : 0) }'; }

bench_case() {
    # $1 label, $2 payload dir, $3 runs
    make_qar "bench-$1" "$2" "$work/$1.qar"
    dpkg_make_deb "bench-$1" "$2" "$work/$1.deb"
    zroot="$work/zroot-$1"
    "$zarnpkg" --root "$zroot" host-init >/dev/null
    zi="" zr="" di="" dr="" fl=""
    run=0
    while [ "$run" -lt "$3" ]; do
        zi="$zi $(dpkg_time_ms "$zarnpkg" --root "$zroot" install "$work/$1.qar")"
        [ -d "$zroot/var/packages/bench-$1" ] || { echo "zarnpkg did not install $1" >&2; exit 1; }
        dpkg_root "$work/droot"
        di="$di $(dpkg_time_ms dpkg --root="$work/droot" --force-not-root --force-script-chrootless -i "$work/$1.deb")"
        zr="$zr $(dpkg_time_ms "$zarnpkg" --root "$zroot" uninstall "bench-$1")"
        [ ! -e "$zroot/var/packages/bench-$1" ] || { echo "zarnpkg did not remove $1" >&2; exit 1; }
        dr="$dr $(dpkg_time_ms dpkg --root="$work/droot" --force-not-root --force-script-chrootless -r "bench-$1")"
        if [ "$1" = large ]; then
            rm -rf "$work/floor" && mkdir -p "$work/floor/x/package" "$work/floor/target"
            fl="$fl $(dpkg_time_ms sh -c "tar xf '$work/$1.qar' -C '$work/floor/x' --no-same-owner &&
                tar xzf '$work/floor/x/package.tgz' -C '$work/floor/x/package' --no-same-owner &&
                mv '$work/floor/x/package' '$work/floor/target/pkg'")"
        fi
        run=$((run + 1))
    done
    printf '%s (%s runs): zarnpkg install %s ms, dpkg -i %s ms, ratio %s; zarnpkg uninstall %s ms, dpkg -r %s ms, ratio %s\n' \
        "$1" "$3" "$(median_of "$zi")" "$(median_of "$di")" "$(ratio "$(median_of "$zi")" "$(median_of "$di")")" \
        "$(median_of "$zr")" "$(median_of "$dr")" "$(ratio "$(median_of "$zr")" "$(median_of "$dr")")"
    if [ -n "$fl" ]; then
        printf '%s: floor (two tar extractions and the move) %s ms, zarnpkg install / floor %s\n' "$1" \
            "$(median_of "$fl")" "$(ratio "$(median_of "$zi")" "$(median_of "$fl")")"
    fi
    if command -v strace >/dev/null; then
        for action in "install $work/$1.qar" "uninstall bench-$1"; do
            # shellcheck disable=SC2086
            strace -f -qq -e trace=execve -o "$work/trace" "$zarnpkg" --root "$zroot" $action >/dev/null 2>&1 || true
            printf '%s: zarnpkg %s starts: %s\n' "$1" "${action%% *}" \
                "$(grep -v ENOENT "$work/trace" | grep -o 'execve("[^"]*"' | sed 's/execve("//; s/"$//; s#.*/##' | tail -n +2 | sort | uniq -c | awk '{ printf "%s %s, ", $1, $2 }')"
        done
    fi
}

mkdir -p "$work/data/tiny" "$work/data/large"
echo "hello" >"$work/data/tiny/hello.txt"
bench_case tiny "$work/data/tiny" "$runs"
if [ "$mb" -gt 0 ]; then
    head -c "$((mb * 1024 * 1024))" /dev/urandom | split -a 5 -d -b "$((mb * 1024 * 1024 / files))" - "$work/data/large/f"
    (cd "$work/data/large" && i=0 && for f in f*; do d=$((i / 100)); mkdir -p "d$d"; mv "$f" "d$d/"; i=$((i + 1)); done)
    bench_case large "$work/data/large" "$(( runs < 3 ? runs : 3 ))"
fi
