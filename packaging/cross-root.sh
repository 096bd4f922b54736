#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# cross-root.sh [--tests] ARCHITECTURE COMMAND...: runs a command in a Debian 12 root file system below build/cross/ that
# has a cross compiler for the architecture (arm64, armhf, i386, s390x), and the libraries that the packages are built
# with, of the architecture. With --tests it also has the libraries that tests are built with, of the architecture, and
# the programs that they run, of this machine's. The source folder is /src there, and can be written below /src/build
# only. The root is made by debootstrap and kept. Takes root; nothing of the machine is touched.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
source=$(cd "$here/.." && pwd)
# shellcheck source=../tests/support/roots.sh
. "$source/tests/support/roots.sh"

if [ "$1" = --inside ]; then
    root=$2
    shift 2
    mount --make-rprivate /
    mount_system_folders "$root"
    mount --bind "$source" "$root/src"
    mount -o remount,bind,ro "$root/src"
    mkdir -p "$source/build"
    mount --bind "$source/build" "$root/src/build"
    cp /etc/resolv.conf "$root/etc/resolv.conf"
    # shellcheck disable=SC2016  # for the shell in the root
    exec chroot "$root" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C DEBIAN_FRONTEND=noninteractive \
        ${http_proxy:+http_proxy="$http_proxy"} bash -c 'cd /src && exec "$@"' - "$@"
fi

tests=no
[ "$1" != --tests ] || { tests=yes; shift; }
architecture=$1
shift
type=$(dpkg-architecture -a "$architecture" -q DEB_HOST_GNU_TYPE 2>/dev/null) ||
    { echo "cross-root.sh: no architecture is called '$architecture'" >&2; exit 2; }
roots=$source/build/cross
root=$roots/$architecture
in_root() {
    unshare --mount --pid --fork --kill-child --ipc --uts "$here/cross-root.sh" --inside "$root" "$@" 9>&-
}

# Of the packages that a build needs, and to run what it makes for itself: libraries of the architecture, and programs and
# headers of no architecture as they are.
wanted() {
    local package
    echo qemu-user-static
    while read -r package; do
        if [ "$package" = build-essential ]; then
            echo "make dpkg-dev g++-${type//_/-} libc6-dev:$architecture libstdc++-12-dev:$architecture"
        elif [[ $package == *-dev ]] && ! apt-cache "${lists[@]}" show --no-all-versions "$package" | grep -qx 'Architecture: all'; then
            echo "$package:$architecture"
        else
            echo "$package"
        fi
    done < <("$here/install-packages.sh" --list build package)
}

# Other compilers and benchmarks are not tested with a cross compiler, nor what watches programs of this machine's kind.
wanted_by_tests() {
    echo "libgtest-dev:$architecture libgmock-dev:$architecture"
    "$here/install-packages.sh" --list test | grep -vE -- '-dev$|^(clang|debootstrap|lintian|valgrind)$'
}

install_packages() {
    # shellcheck disable=SC2016  # for the shell in the root
    in_root bash -euc 'dpkg --add-architecture "$1"; apt-get -q update; apt-get -q -y install --no-install-recommends "${@:2}"' \
        - "$architecture" "$@" >>"$roots/log" 2>&1 || offline
}

check_that_roots_can_be_made
use_proxy
: >>"$roots/log"
if [ ! -e "$roots/.$architecture-complete" ]; then
    echo "cross-root.sh: making $root; the log is $roots/log" >&2
    find_archive bookworm
    rm -rf --one-file-system "$root" "$roots/.$architecture-tests-complete"
    debootstrap --variant=minbase bookworm "$root" "$archive" >>"$roots/log" 2>&1 || offline
    mkdir -p "$root/src"
    # shellcheck disable=SC2046  # a word each
    install_packages $(wanted)
    touch "$roots/.$architecture-complete"
fi
if [ $tests = yes ] && [ ! -e "$roots/.$architecture-tests-complete" ]; then
    # shellcheck disable=SC2046  # a word each
    install_packages $(wanted_by_tests)
    touch "$roots/.$architecture-tests-complete"
fi
in_root "$@"
