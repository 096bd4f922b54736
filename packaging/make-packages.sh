#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# make-packages.sh [--build FOLDER] [DESTINATION]: makes the Debian packages in DESTINATION (build/packages).
#
#   libvpnwfoal0            the plug-in
#   libvpnwfoal-dev         headers of the agent's and of the platform's interfaces, CMake package, pkg-config file
#   libvpnwfoal-platform0   the four platform libraries for an ordinary Linux
#   vpnwfoal-services       connection manager and certificate manager
#   vpnoalctl               the command-line tool, with its manual page and shell completion
#
# All of them from local files:    sudo apt-get install ./build/packages/*.deb
#
# --build takes a finished build as it is; else the preset "package" is built, and what it needs is installed first.
set -euo pipefail
source=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

build=
case ${1:-} in
--build)
    [ $# -ge 2 ] || { echo 'make-packages.sh: --build needs a folder' >&2; exit 2; }
    build=$2
    shift 2
    ;;
-h | --help)
    sed -n '4,14s/^# \{0,1\}//p' "$0"
    exit 0
    ;;
-*)
    echo "make-packages.sh: unknown option '$1' (see --help)" >&2
    exit 2
    ;;
esac
destination=${1:-$source/build/packages}

if [ -z "$build" ]; then
    build=$source/build/package
    "$source/packaging/install-packages.sh" build package
    cmake -S "$source" --preset package
    cmake --build "$build"
fi
mkdir -p "$destination"
destination=$(cd "$destination" && pwd)
work=$(mktemp -d "$destination/.work.XXXXXX")
trap 'rm -rf "$work"' EXIT
# The umask of whoever makes the packages does not show in them.
umask 022
cpack --config "$build/CPackConfig.cmake" -B "$work" >"$work/log" 2>&1 || { cat "$work/log" >&2; exit 1; }
grep -A3 'CMake Warning' "$work/log" >&2 || true
rm -f "$destination"/*.deb
mv "$work"/*.deb "$destination"
ls "$destination"/*.deb
