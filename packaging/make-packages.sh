#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# make-packages.sh [--build FOLDER [--without-debug] | --arch ARCHITECTURE] [DESTINATION]: makes the Debian packages in
# DESTINATION (build/packages, or build/packages-ARCHITECTURE).
#
#   libvpnwfoal0            the plug-in
#   libvpnwfoal-dev         headers of the agent's and of the platform's interfaces, CMake package, pkg-config file
#   libvpnwfoal-platform0   the four platform libraries for an ordinary Linux
#   vpnwfoal-services       connection manager and certificate manager
#   vpnoalctl               the command-line tool, with its manual page and shell completion
#
# The symbols for a debugger are in DESTINATION/debug, in a package NAME-dbgsym for each.
#
# All of them from local files:    sudo apt-get install ./build/packages/*.deb
#
# --build takes a finished build as it is; else the preset "package" is built, and what it needs is installed first.
# --without-debug leaves out the packages of debug symbols, which take most of the time.
# --arch makes them for arm64, armhf or i386, with a cross compiler in a root file system of its own (cross-root.sh).
set -euo pipefail
source=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

build='' architecture='' options=()
case ${1:-} in
--arch)
    [ $# -ge 2 ] || { echo 'make-packages.sh: --arch needs an architecture' >&2; exit 2; }
    case $2 in
    arm64 | armhf | i386) architecture=$2 ;;
    *)
        echo "make-packages.sh: no packages are made for '$2': arm64, armhf and i386" >&2
        exit 2
        ;;
    esac
    shift 2
    ;;
--build)
    [ $# -ge 2 ] || { echo 'make-packages.sh: --build needs a folder' >&2; exit 2; }
    build=$2
    shift 2
    if [ "${1:-}" = --without-debug ]; then
        options=(-D CPACK_DEBIAN_DEBUGINFO_PACKAGE=OFF -D CPACK_STRIP_FILES=ON)
        shift
    fi
    ;;
-h | --help)
    sed -n '4,20s/^# \{0,1\}//p' "$0"
    exit 0
    ;;
-*)
    echo "make-packages.sh: unknown option '$1' (see --help)" >&2
    exit 2
    ;;
esac
destination=${1:-$source/build/packages${architecture:+-$architecture}}

if [ -n "$architecture" ]; then
    mkdir -p "$source/build/package-$architecture"
    # shellcheck disable=SC2016  # for the shell in the root
    "$source/packaging/cross-root.sh" "$architecture" bash -euc '
        packaging/cross-cmake.sh "$1" -S /src --preset package -B "/src/build/package-$1"
        cmake --build "/src/build/package-$1"
        mkdir -p "/src/build/.packages-$1"
        packaging/make-packages.sh --build "/src/build/package-$1" "/src/build/.packages-$1"
    ' - "$architecture" >"$source/build/package-$architecture.log" 2>&1 ||
        { status=$?; tail -n 20 "$source/build/package-$architecture.log" >&2; exit $status; }
    mkdir -p "$destination"
    rm -rf "$destination"/*.deb "$destination/debug"
    mv "$source/build/.packages-$architecture"/* "$destination"
    rmdir "$source/build/.packages-$architecture"
    ls "$destination"/*.deb
    exit
fi

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
# Files are as old as the changelog says at most, so that two builds give the same bytes.
SOURCE_DATE_EPOCH=$(dpkg-parsechangelog -l "$source/packaging/debian/changelog" -S Timestamp)
export SOURCE_DATE_EPOCH
cpack --config "$build/CPackConfig.cmake" "${options[@]}" -B "$work" >"$work/log" 2>&1 || { cat "$work/log" >&2; exit 1; }
grep -A3 'CMake Warning' "$work/log" >&2 || true
rm -rf "$destination"/*.deb "$destination/debug"
mv "$work"/*.deb "$destination"
for package in "$work"/*.ddeb; do
    [ -e "$package" ] || continue
    mkdir -p "$destination/debug"
    mv "$package" "$destination/debug/$(basename "$package" .ddeb).deb"
done
ls "$destination"/*.deb
