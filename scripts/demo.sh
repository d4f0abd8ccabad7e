#!/usr/bin/env bash
# Builds the command-line program, makes a standalone root in a temporary folder and shows the
# registry through the command line. The root is left behind for a look around; its path is printed.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
"$here/scripts/install-deps.sh"
"$here/scripts/build.sh" zarnpkg-bin
zarnpkg="${BUILD_DIR:-$here/build}/zarnpkg"
root=${DEMO_ROOT:-$(mktemp -d /tmp/zarnpkg-demo.XXXXXX)}

run() { echo "+ zarnpkg $*"; "$zarnpkg" --root "$root" "$@"; }

run host-init

# A package author's view: pack the example, check it against this host, read its record.
qar="$root/tmp/hello.qar"
run pack "$here/examples/hello" -o "$qar"
run check "$qar"
run info "$qar"

# Until packages install from QAR files, lay down one registry entry by hand: the INFO file,
# a payload folder on /volume1 and the target link to it.
mkdir -p "$root/var/packages/hello/scripts" "$root/volume1/@appstore/hello"
cat > "$root/var/packages/hello/INFO" <<'INFO'
package="hello"
version="1.0.0-0001"
displayname="Hello"
description="A greeting package laid down by the demo."
maintainer="Zarn Demo"
arch="noarch"
os_min_ver="6.0-0000"
install_dep_services="ssh"
INFO
# Relative, as the library makes links under a root other than "/".
ln -sfn ../../../volume1/@appstore/hello "$root/var/packages/hello/target"

run list
run info hello
run status hello
run order
run --json list
echo "standalone root: $root"
