#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# coinstall.sh PACKAGES OTHER: the libraries of two architectures are installed beside each other by dpkg, in an
# empty root of its own. OTHER holds packages of another architecture than PACKAGES. What they depend on is not there,
# and no script of theirs is run.
set -euo pipefail
[ "$(id -u)" -eq 0 ] || { echo 'skipped: dpkg installs as root only'; exit 77; }
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates" "$root/var/lib/dpkg/triggers"
: >"$root/var/lib/dpkg/status"
install_into_root() {
    dpkg --root="$root" --force-depends --force-script-chrootless --install "$@" >"$root/log" 2>&1 || { cat "$root/log"; exit 1; }
}
other=$(dpkg-deb -f "$2"/libvpnwfoal0_*.deb Architecture)
[ "$(dpkg-deb -f "$1"/libvpnwfoal0_*.deb Architecture)" != "$other" ] || { echo 'both are of one architecture'; exit 1; }
dpkg --root="$root" --add-architecture "$other"
install_into_root "$1"/libvpnwfoal{0,-platform0}_*.deb
install_into_root "$2"/libvpnwfoal{0,-platform0}_*.deb
count=$(dpkg-query --admindir="$root/var/lib/dpkg" -W -f '${db:Status-Status} ${binary:Package}\n' | grep -c '^installed libvpnwfoal')
[ "$count" -eq 4 ] || { dpkg-query --admindir="$root/var/lib/dpkg" -l; exit 1; }
find "$root/usr/lib" -name 'libVpnWfOal.so.0' | grep -c . | grep -qx 2 || { echo 'there is not one plug-in for each'; exit 1; }
echo "libvpnwfoal0 and libvpnwfoal-platform0 of $other installed beside those of this machine"
