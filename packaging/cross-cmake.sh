#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# cross-cmake.sh ARCHITECTURE ARGUMENT...: runs cmake with the cross compiler, the libraries and the tools of Debian for the
# architecture, in a root file system of cross-root.sh. What else a build needs are the arguments.
set -euo pipefail

architecture=$1
shift
type=$(dpkg-architecture -a "$architecture" -q DEB_HOST_GNU_TYPE)
triple=$(dpkg-architecture -a "$architecture" -q DEB_HOST_MULTIARCH)
case $architecture in
amd64 | i386) emulator='env' ;;
arm64) emulator=qemu-aarch64-static ;;
armhf) emulator=qemu-arm-static ;;
*) emulator=qemu-$architecture-static ;;
esac
export PKG_CONFIG_LIBDIR=/usr/lib/$triple/pkgconfig:/usr/share/pkgconfig
exec cmake "$@" -DCMAKE_SYSTEM_NAME=Linux -DCMAKE_SYSTEM_PROCESSOR="${type%%-*}" \
    -DCMAKE_C_COMPILER="$type-gcc" -DCMAKE_CXX_COMPILER="$type-g++" -DCMAKE_LIBRARY_ARCHITECTURE="$triple" \
    -DCMAKE_CROSSCOMPILING_EMULATOR="$emulator" -DCMAKE_INSTALL_LIBDIR="lib/$triple" \
    -DCMAKE_OBJCOPY="/usr/bin/$type-objcopy" -DCMAKE_STRIP="/usr/bin/$type-strip" -DCMAKE_READELF="/usr/bin/$type-readelf" \
    -DCPACK_DEBIAN_PACKAGE_ARCHITECTURE="$architecture"
