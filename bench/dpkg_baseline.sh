#!/bin/sh
# What dpkg takes on this machine to install and remove a package into a root of its own: the
# baseline that the install bench sets zarnpkg against. Sourced, it only defines the helpers
# (dpkg_make_deb, dpkg_root, dpkg_time_ms) for that bench; run, it prints the medians of a tiny
# package (one payload file) and of a large one (FILES files, MB megabytes in all).
#   bench/dpkg_baseline.sh [RUNS] [FILES] [MB]
set -eu

# dpkg_make_deb NAME PAYLOAD_DIR OUT.deb: a package of the files of PAYLOAD_DIR, no scripts.
dpkg_make_deb() {
    _work=$(mktemp -d)
    mkdir -p "$_work/DEBIAN" "$_work/opt/$1"
    cp -a "$2/." "$_work/opt/$1/"
    printf 'Package: %s\nVersion: 1.0\nArchitecture: all\nMaintainer: bench <bench@localhost>\nDescription: bench package\n' \
        "$1" >"$_work/DEBIAN/control"
    dpkg-deb -Zgzip --root-owner-group --build "$_work" "$3" >/dev/null
    rm -rf "$_work"
}

# dpkg_root DIR: an empty root that dpkg --root accepts.
dpkg_root() {
    rm -rf "$1"
    mkdir -p "$1/var/lib/dpkg/info" "$1/var/lib/dpkg/updates" "$1/var/lib/dpkg/triggers"
    : >"$1/var/lib/dpkg/status"
    : >"$1/var/lib/dpkg/available"
}

# dpkg_time_ms COMMAND...: runs the command, prints its wall time in milliseconds.
dpkg_time_ms() {
    _start=$(date +%s%N)
    "$@" >/dev/null 2>&1
    echo $((($(date +%s%N) - _start) / 1000000))
}

# median of the numbers on standard input
dpkg_median() {
    sort -n | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'
}

dpkg_baseline_case() {
    # $1 label, $2 payload dir, $3 runs
    _tmp=$(mktemp -d)
    dpkg_make_deb "bench-$1" "$2" "$_tmp/p.deb"
    _inst="" _rem=""
    _run=0
    while [ "$_run" -lt "$3" ]; do
        dpkg_root "$_tmp/root"
        _inst="$_inst $(dpkg_time_ms dpkg --root="$_tmp/root" --force-not-root --force-script-chrootless -i "$_tmp/p.deb")"
        [ -d "$_tmp/root/opt/bench-$1" ] || { echo "dpkg did not install $1" >&2; exit 1; }
        _rem="$_rem $(dpkg_time_ms dpkg --root="$_tmp/root" --force-not-root --force-script-chrootless -r "bench-$1")"
        _run=$((_run + 1))
    done
    printf '%s: dpkg -i median %s ms, dpkg -r median %s ms (%s runs)\n' "$1" \
        "$(echo "$_inst" | tr ' ' '\n' | grep . | dpkg_median)" \
        "$(echo "$_rem" | tr ' ' '\n' | grep . | dpkg_median)" "$3"
    rm -rf "$_tmp"
}

if [ "$(basename "$0")" = "dpkg_baseline.sh" ]; then
    runs=${1:-11}
    files=${2:-10000}
    mb=${3:-200}
    data=$(mktemp -d)
    trap 'rm -rf "$data"' EXIT
    mkdir -p "$data/tiny" "$data/large"
    echo "hello" >"$data/tiny/hello.txt"
    # Incompressible data, as packed binaries mostly are, spread over folders of 100 files.
    head -c "$((mb * 1024 * 1024))" /dev/urandom | split -a 5 -d -b "$((mb * 1024 * 1024 / files))" - "$data/large/f"
    (cd "$data/large" && i=0 && for f in f*; do d=$((i / 100)); mkdir -p "d$d"; mv "$f" "d$d/"; i=$((i + 1)); done)
    dpkg_baseline_case tiny "$data/tiny" "$runs"
    dpkg_baseline_case large "$data/large" "$(( runs < 3 ? runs : 3 ))"
fi
