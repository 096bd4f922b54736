#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# packages.sh [ARCHITECTURE...]: makes the Debian packages for this machine and for each architecture (arm64, armhf and i386
# when none is named), with their debug symbols, and looks at them: lintian, no folder of the build inside, the same
# bytes when they are made a second time in another folder (for this machine only), and libraries of two architectures
# beside each other. Takes root.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
source=$(cd "$here/../.." && pwd)
[ $# -gt 0 ] || set -- arm64 armhf i386
work=$(mktemp -d "$source/build/packages.XXXXXX")
trap 'rm -rf "$work"' EXIT
status=0
failed() {
    echo "failed: $*"
    status=1
}

look_at() {
    lintian --allow-root --fail-on error,warning "$1"/*.deb "$1"/debug/*.deb || failed "lintian finds something in $1"
    local package
    for package in "$1"/*.deb "$1"/debug/*.deb; do
        rm -rf "$work/unpacked"
        dpkg-deb --raw-extract "$package" "$work/unpacked"
        if grep -rlF -e "$source" -e "$work" -e /src/ "$work/unpacked"; then failed "$package names folders of the build"; fi
    done
}

# The sources in another folder, built without a cache that has seen them.
mkdir "$work/copy"
(cd "$source" && git ls-files -z | xargs -0 cp -P --parents -t "$work/copy")
for folder in "$source" "$work/copy"; do
    env -u CMAKE_C_COMPILER_LAUNCHER -u CMAKE_CXX_COMPILER_LAUNCHER "$folder/packaging/make-packages.sh" >"$work/log" 2>&1 ||
        { tail -n 20 "$work/log"; exit 1; }
done
for package in "$source"/build/packages/*.deb "$source"/build/packages/debug/*.deb; do
    cmp "$package" "$work/copy/build/packages/${package#"$source"/build/packages/}" || failed "$package is not reproducible"
done
look_at "$source/build/packages"
for architecture in "$@"; do
    "$source/packaging/make-packages.sh" --arch "$architecture" >"$work/log" || exit 1
    look_at "$source/build/packages-$architecture"
    "$source/tests/packages/coinstall.sh" "$source/build/packages" "$source/build/packages-$architecture" || status=1
done
exit $status
