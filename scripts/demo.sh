#!/usr/bin/env bash
# The road of real packages on a standalone root: builds the tools, makes a root in a temporary
# folder, packs three examples (heartbeat, a service; greeter, which needs it; wizard-demo, which
# writes a wizard answer), installs and starts them, shows the service alive, upgrades heartbeat
# in place while it runs, stops and uninstalls everything. Each step prints its outcome; the
# root is left behind for a look around (DEMO_KEEP=0 removes it).
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$here/build}
"$here/scripts/install-deps.sh"
BUILD_DIR=$build "$here/scripts/build.sh" zarnpkg-bin zarnpkgctl-bin zarn-initctl-bin zarnkosnotify-bin
zarnpkg="$build/zarnpkg"
root=${DEMO_ROOT:-$(mktemp -d /tmp/zarnpkg-demo.XXXXXX)}
work="$root/tmp/demo"

step=0
# Runs one zarnpkg command, printing it and whether it did what the demo expects of it.
run() {
  local expect=$1; shift
  step=$((step + 1))
  echo "== $step: zarnpkg $*"
  local status=0
  "$zarnpkg" --root "$root" "$@" || status=$?
  if { [ "$expect" = ok ] && [ $status -ne 0 ]; } || { [ "$expect" = fail ] && [ $status -eq 0 ]; }; then
    echo "-- step $step: unexpected exit status $status; the log: $root/var/log/zarnpkg.log" >&2
    exit 1
  fi
  echo "-- exit $status ($expect as expected)"
}
# Prints a fact of the root and fails the demo when the check fails.
show() {
  local what=$1; shift
  if "$@"; then echo "-- $what: yes"; else echo "-- $what: NO" >&2; exit 1; fi
}
alive() { kill -0 "$(cat "$root/volume1/@appstore/heartbeat/heartbeat.pid")" 2>/dev/null; }
beating() {
  local first; first=$(cat "$root/volume1/@appstore/heartbeat/heartbeat")
  sleep 2
  [ "$(cat "$root/volume1/@appstore/heartbeat/heartbeat")" != "$first" ]
}

run ok host-init
mkdir -p "$work"
for example in heartbeat greeter wizard-demo; do
  run ok pack "$here/examples/$example" -o "$work/$example.qar"
done
# Version 1.1 of heartbeat, for the upgrade in place.
cp -a "$here/examples/heartbeat" "$work/heartbeat-1.1"
sed -i 's/^version=.*/version="1.1.0-0001"/' "$work/heartbeat-1.1/INFO"
run ok pack "$work/heartbeat-1.1" -o "$work/heartbeat-1.1.qar"

run ok install "$work/heartbeat.qar"
run ok status heartbeat
run ok start heartbeat
show "heartbeat's process is alive" alive
show "heartbeat beats" beating
run ok install "$work/greeter.qar" --start
run ok install "$work/wizard-demo.qar" --wizard '{"wizard_owner": "Ada"}'
show "wizard-demo's script wrote the answer 'Ada'" grep -qx Ada "$root/volume1/@appstore/wizard-demo/owner"
run ok list
run fail uninstall heartbeat
old=$(cat "$root/volume1/@appstore/heartbeat/heartbeat.pid")
# greeter runs on heartbeat: the upgrade is refused unless it may stop and restart greeter.
run fail install "$work/heartbeat-1.1.qar" --keep-running
run ok install "$work/heartbeat-1.1.qar" --keep-running --ignore-deps
show "heartbeat runs again after the upgrade" alive
show "with a new process (was $old, now $(cat "$root/volume1/@appstore/heartbeat/heartbeat.pid"))" \
  test "$old" != "$(cat "$root/volume1/@appstore/heartbeat/heartbeat.pid")"
show "heartbeat beats" beating
run ok list
run fail install "$work/heartbeat.qar"
run ok stop greeter
run ok stop heartbeat
show "heartbeat's process is gone" test ! -e "$root/volume1/@appstore/heartbeat/heartbeat.pid"
run ok status heartbeat
for name in greeter wizard-demo heartbeat; do
  run ok uninstall "$name"
done
run ok list
show "no package is left in the registry" test -z "$(ls "$root/var/packages")"
if [ "${DEMO_KEEP:-1}" = 0 ]; then rm -rf "$root"; else echo "standalone root: $root"; fi
echo "demo: all $step steps went as expected"
