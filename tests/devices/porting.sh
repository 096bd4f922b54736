#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# porting.sh [--here]: follows docs/porting.md to a device, with the commands that the page shows, in a Debian root that has
# a cross compiler and what builds need of programs, and no library of the plug-in's at all. --here follows it on this
# machine, in a copy of the source folder. What was built must be for the device, and the example platform must break
# the promises that the page leaves to a port, and no others.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
source=$(cd "$here/../.." && pwd)

# The commands of the section "Compile for the device", a line each.
# shellcheck disable=SC2016  # the marks of a block
commands() {
    sed -n '/^## Compile for the device/,/^## On/p' "$1/docs/porting.md" | sed -n '/^```sh/,/^```$/{/^```/!p}'
}

# In a folder with the sources and nothing that was built.
follow() {
    local command
    while IFS= read -r command; do
        echo "+ $command"
        # What is not testable takes no failure, what is broken is looked at below.
        bash -euo pipefail -c "$command" >log 2>&1 </dev/null || [[ $command == qemu-* ]] || { tail -n 20 log; exit 1; }
        [[ $command != qemu-* ]] || mv log promises
    done < <(commands .)
    file -L build/armhf/device/lib/libVpnWfOal.so build/armhf/platform/*.so | grep -v 'ELF 32-bit LSB shared object, ARM' && exit 1
    diff <(sed -n 's/^not ok  *//p' promises) - <<'END' || { cat promises; exit 1; }
VkNetConfigLib.h a malformed interface request is refused
VkNetConfigLib.h a malformed firewall request is refused
VkNetConfigLib.h one line of the log names the key at fault
END
    tail -n 1 promises
}

copy_sources() {
    mkdir -p "$1"
    (cd "$source" && git ls-files -z | xargs -0 cp -P --parents -t "$1")
}

case ${1:-} in
--here)
    command -v arm-linux-gnueabihf-g++ >/dev/null || { echo 'skipped: there is no cross compiler arm-linux-gnueabihf-g++'; exit 77; }
    command -v qemu-arm-static >/dev/null || { echo 'skipped: there is no qemu-arm-static'; exit 77; }
    mkdir -p "$source/build"
    work=$(mktemp -d "$source/build/porting.XXXXXX")
    trap 'rm -rf "$work"' EXIT
    copy_sources "$work"
    cd "$work"
    follow
    ;;
--inside)
    cd /src
    follow
    ;;
*)
    # shellcheck source=../support/roots.sh
    . "$here/../support/roots.sh"
    roots=$source/build/porting  # not that of devices.sh, which holds its lock meanwhile
    check_that_roots_can_be_made
    use_proxy
    root=$roots/porting
    if [ ! -e "$roots/.porting-complete" ]; then
        find_archive bookworm
        rm -rf --one-file-system "$root"
        debootstrap --variant=minbase \
            --include=cmake,ninja-build,pkg-config,make,file,gcc,g++,g++-arm-linux-gnueabihf,qemu-user-static,ca-certificates \
            bookworm "$root" "$archive" >>"$roots/log" 2>&1 || offline
        touch "$roots/.porting-complete"
    fi
    rm -rf "$root/src"
    copy_sources "$root/src"
    # The commands fetch the device's libraries, so the network stays; names are resolved as outside.
    cp /etc/resolv.conf "$root/etc/resolv.conf"
    mkdir -p "$root/etc/apt/apt.conf.d"
    apt-config dump Acquire::http::Proxy >"$root/etc/apt/apt.conf.d/90proxy"
    # shellcheck disable=SC2016  # for the shell in the namespace
    unshare --mount --pid --fork --kill-child bash -euc '
        mount --make-rprivate /
        . "$1"
        mount_system_folders "$2"
        exec chroot "$2" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C /src/tests/devices/porting.sh --inside
    ' - "$here/../support/roots.sh" "$root" 9>&-
    ;;
esac
