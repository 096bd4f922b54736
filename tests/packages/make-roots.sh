#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# make-roots.sh ROOTS PACKAGES: makes two root file systems of this machine's Debian release below the folder ROOTS, for
# the packages in PACKAGES to be installed in:
#
#   runtime   a minimal system by debootstrap, what the packages depend on, a resolver and openssl; without the packages
#   devel     the same, and what the examples need to be built
#
# Roots that are there already are kept while the packages depend on the same. Archive and proxy are those of the
# machine's apt. Exits with 77 where it cannot work.
set -euo pipefail
roots=$1 packages=$2
extra=(openssl systemd-resolved)
build_tools=(cmake g++ libjson-c-dev make pkg-config)

# shellcheck source=/dev/null
. /etc/os-release
library=$(dirname "${BASH_SOURCE[0]}")/../support/roots.sh
# shellcheck source=../support/roots.sh
. "$library"
check_that_roots_can_be_made

depends() {
    local package
    for package in "$packages"/*.deb; do
        dpkg-deb -f "$package" Package Depends
    done
}
signature=$({ cat "${BASH_SOURCE[0]}" "$library"; echo "$VERSION_CODENAME"; depends; } | sha256sum)
[ "$(cat "$roots/.complete" 2>/dev/null)" != "$signature" ] || exit 0
rm -rf "$roots/.complete" "$roots/runtime" "$roots/devel" "$roots/archives" "$roots/apt"

# The machine's apt, looking at another system.
apt_for() {
    local root=$1
    shift
    apt-get -q -y --no-install-recommends -o Debug::NoLocking=1 -o APT::Sandbox::User= "${lists[@]}" \
        -o Dir::State::status="$root/var/lib/dpkg/status" -o Dir::State::extended_states=/dev/null \
        -o Dir::Cache::archives="$roots/archives" "$@" >>"$roots/log" 2>&1
}
download() {
    rm -rf "$roots/archives"
    mkdir -p "$roots/archives/partial"
    apt_for "$1" --download-only install "${@:2}"
}

in_root() {
    # shellcheck disable=SC2016  # for the shell in the namespaces
    unshare --mount --pid --fork --kill-child --net bash -ec 'mount --make-rprivate /
        mount -t proc proc "$1/proc"
        [ ! -d "$1/archives" ] || mount --bind "$2" "$1/archives"
        exec chroot "$1" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin DEBIAN_FRONTEND=noninteractive LC_ALL=C "${@:3}"' \
        - "$1" "$roots/archives" "${@:2}" >>"$roots/log" 2>&1
}

# Installs with dpkg alone what apt has downloaded for it.
add() {
    local root=$1
    download "$@" || { use_own_lists && download "$@"; } || offline
    mkdir "$root/archives"
    # Those that must find others already configured take a second run.
    # shellcheck disable=SC2016  # for the shell in the root
    in_root "$root" sh -c 'install() { dpkg --force-unsafe-io --skip-same-version --install /archives/*.deb; }
        install || { install && dpkg --configure --pending; }' || { tail -n 20 "$roots/log" >&2; exit 1; }
    rmdir "$root/archives"
}

: >"$roots/log"
find_archive "$VERSION_CODENAME"
debootstrap --variant=minbase "$VERSION_CODENAME" "$roots/runtime" "$archive" >>"$roots/log" 2>&1 || offline
rm -rf "$roots"/runtime/var/cache/apt/archives/*.deb "$roots"/runtime/var/lib/apt/lists/*
add "$roots/runtime" "${extra[@]}" "$packages"/*.deb
cp -a "$roots/runtime" "$roots/devel"
add "$roots/devel" "${build_tools[@]}"
rm -rf "$roots/archives" "$roots/apt"
printf '%s\n' "$signature" >"$roots/.complete"
