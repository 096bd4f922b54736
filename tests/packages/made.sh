#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# made.sh BUILD PACKAGES: makes the packages from the build, as packaging/make-packages.sh does for everybody, and looks at
# what is in them: where each file is, how the programs are built, and what lintian says.
set -euo pipefail
build=$1 packages=$2 here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
source=$(cd "$here/../.." && pwd)
# The symbols for a debugger take minutes; tests/devices/packages.sh makes them.
"$here/../../packaging/make-packages.sh" --build "$build" --without-debug "$packages" >/dev/null
work=$(mktemp -d "$build/packages-made.XXXXXX")
trap 'rm -rf "$work"' EXIT
status=0

complain() {
    echo "$*"
    status=1
}

# Mode, path and target of each file; names hold the machine's architecture and the version.
version=$(dpkg-deb -f "$(find "$packages" -name 'libvpnwfoal0_*.deb')" Version | sed 's/-.*//')
architecture=$(dpkg-architecture -q DEB_HOST_MULTIARCH)
for package in "$packages"/*.deb; do
    echo "== $(dpkg-deb -f "$package" Package)"
    dpkg-deb -c "$package" | awk '$2 != "root/root" { $1 = $1 " " $2 } $6 !~ /\/$/ { print $1, $6 (NF > 7 ? " -> " $8 : "") }' | LC_ALL=C sort -k2
    dpkg-deb -x "$package" "$work/root"
done | sed "s|$architecture|ARCHITECTURE|g; s|\.$version|.VERSION|g" >"$work/contents"
diff -u "$here/contents.txt" "$work/contents" || complain 'the packages do not hold what tests/packages/contents.txt lists'

# Whoever installs the packages keeps the resolver that is there: apt follows these fields by itself.
for package in "$packages"/*.deb; do
    dpkg-deb -f "$package" Pre-Depends Depends Recommends | grep -E 'resolved|resolvconf' &&
        complain "$(basename "$package") brings a resolver with it"
done
dpkg-deb -f "$packages"/libvpnwfoal-platform0_*.deb Suggests | grep -qx 'systemd-resolved | resolvconf' ||
    complain 'libvpnwfoal-platform0 does not suggest a resolver'

# What others were linked with is written down for each library, with the version that it came with. A source package's
# file is wanted, and not read.
mkdir "$work/debian"
: >"$work/debian/control"
for package in "$packages"/libvpnwfoal{0,-platform0}_*.deb; do
    name=$(dpkg-deb -f "$package" Package)
    rm -rf "$work/library"
    dpkg-deb -x "$package" "$work/library"
    dpkg-deb -I "$package" symbols >"$work/symbols"
    (cd "$work" && dpkg-gensymbols -p"$name" -v"$(dpkg-deb -f "$package" Version)" -Plibrary -Isymbols -c4 -O/dev/null) ||
        complain "the symbols of $name are not those of its libraries"
done
while IFS=: read -r name multiarch; do
    [ "$(dpkg-deb -f "$packages/$name"_*.deb Multi-Arch)" = "$multiarch" ] || complain "Multi-Arch of $name is not '$multiarch'"
done <<'END'
libvpnwfoal0:same
libvpnwfoal-platform0:same
libvpnwfoal-dev:no
vpnwfoal-services:foreign
vpnoalctl:foreign
END

while read -r file; do
    readelf -Wd "$file" >"$work/dynamic"
    grep -qE 'R(UN)?PATH' "$work/dynamic" && complain "$file has a path of its own"
    grep -q 'BIND_NOW\|NOW' "$work/dynamic" || complain "$file binds lazily"
    readelf -Wl "$file" | grep -q GNU_RELRO || complain "$file has no read-only relocations"
    readelf -WS "$file" | grep -q '\.symtab' && complain "$file is not stripped"
done < <(find "$work/root" -type f \( -name '*.so.*' -o -path '*/bin/*' -o -path '*/libexec/*' \))
grep -rlF -e "$source/" -e "$build/" "$work/root" && complain 'the files above name folders of the build'

# Units, and what OpenVPN reads, name programs: where the packages install them.
grep -rIF -e /usr/local/ -e '@WFOAL' "$work/root" && complain 'the lines above name what the packages do not install'

if command -v lintian >/dev/null; then
    lintian --allow-root --fail-on error,warning "$packages"/*.deb || status=1
else
    echo 'lintian is not installed'
    [ $status -ne 0 ] || status=77
fi
exit $status
