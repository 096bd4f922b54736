#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# Sourced by scripts that make root file systems of Debian below a folder, or enter them. Archive and proxy are those of
# the machine's apt. The folder is `roots`; what apt and debootstrap say goes to `roots`/log. A script that cannot work
# prints the reason and exits with 77.
#
# After find_archive, `archive` is the archive's address and `lists` holds options for apt-get.

roots=${roots:-}

cannot() {
    echo "$1"
    exit 77
}

# Without a network that is a reason; where nothing may be skipped it is a failure.
offline() {
    tail -n 5 "$roots/log" >&2
    [ -z "${CI:-}" ] || exit 1
    cannot 'the archive of this distribution is not reachable'
}

# Also locks the folder, until the script ends.
check_that_roots_can_be_made() {
    [ "$(id -u)" -eq 0 ] || cannot 'making a root file system takes root'
    mkdir -p "$roots"
    exec 9>"$roots/.lock"
    flock 9
    rm -f "$roots/probe"
    mknod "$roots/probe" c 1 3 2>/dev/null || cannot 'device files cannot be made here'
    (true >"$roots/probe") 2>/dev/null || cannot "device files cannot be used below $roots"
    rm -f "$roots/probe"
    unshare --mount --pid --fork --net true 2>/dev/null || cannot 'private namespaces cannot be made here'
    command -v debootstrap >/dev/null || cannot 'debootstrap is not installed'
}

# The machine's lists of packages may be absent or too old for its archive: then lists of our own are fetched.
lists=()
use_own_lists() {
    [ ${#lists[@]} -eq 0 ] || return 1
    mkdir -p "$roots/apt/lists/partial"
    lists=(-o Dir::State::Lists="$roots/apt/lists" -o Dir::Cache::pkgcache= -o Dir::Cache::srcpkgcache=)
    apt-get -q "${lists[@]}" update >>"$roots/log" 2>&1
}

archive_of() {
    apt-get "${lists[@]}" indextargets --format "\$(RELEASE) \$(REPO_URI)" 'Created-By: Packages' |
        awk -v release="$1" '$1 == release && !found++ { print $2 }'
}

use_proxy() {
    local proxy=
    eval "$(apt-config shell proxy Acquire::http::Proxy)"
    [ -z "$proxy" ] || export http_proxy=$proxy
}

# find_archive RELEASE: an archive holds all releases of a distribution, and apt knows that of the machine's.
find_archive() {
    local mine
    use_proxy
    mine=$(sed -n 's/^VERSION_CODENAME=//p' /etc/os-release)
    archive=$(archive_of "$1")
    [ -n "$archive" ] || archive=$(archive_of "$mine")
    [ -n "$archive" ] || { use_own_lists && archive=$(archive_of "$mine"); } || offline
    [ -n "$archive" ] || cannot "apt knows no archive of $1"
}

# mount_system_folders ROOT: what the kernel offers, and folders that nobody else sees. Only in a mount namespace of
# one's own.
mount_system_folders() {
    local root=$1 device name major minor stream
    mount -t proc proc "$root/proc"
    mount -t sysfs -o ro sysfs "$root/sys"
    mount -t tmpfs -o mode=755 run "$root/run"
    mount -t tmpfs -o mode=1777 tmp "$root/tmp"
    mount -t tmpfs -o mode=755 dev "$root/dev"
    for device in 'null 1 3' 'zero 1 5' 'full 1 7' 'random 1 8' 'urandom 1 9' 'tty 5 0' 'net/tun 10 200'; do
        read -r name major minor <<<"$device"
        mkdir -p "$root/dev/$(dirname "$name")"
        mknod -m 666 "$root/dev/$name" c "$major" "$minor"
    done
    mkdir "$root/dev/pts" "$root/dev/shm"
    mount -t devpts -o newinstance,ptmxmode=0666 devpts "$root/dev/pts"
    mount -t tmpfs -o mode=1777 shm "$root/dev/shm"
    ln -s pts/ptmx "$root/dev/ptmx"
    ln -s /proc/self/fd "$root/dev/fd"
    for stream in 0:stdin 1:stdout 2:stderr; do
        ln -s "/proc/self/fd/${stream%:*}" "$root/dev/${stream#*:}"
    done
}
