#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# fetch-daemons.sh DEST [DAEMON...]: unpacks real system daemons into the folder DEST, for tests and the demo to run in
# private namespaces. Nothing is installed: installing systemd-resolved would replace the machine's /etc/resolv.conf.
# Works as an ordinary user. What is already there is left alone.
#
# Daemons: resolved elogind networkmanager resolvconf, and openvpn for its up script (all of them when none is named).
# Each has a folder of its own, since elogind brings a libsystemd.so.0 that the others must not see; DEST/bin has a
# command for each program.
set -euo pipefail

declare -A packages=(
    [resolved]="systemd-resolved libsystemd-shared libsystemd0"
    [elogind]="elogind libelogind0"
    [networkmanager]="network-manager libnm0"
    [resolvconf]="resolvconf"
    [openvpn]="openvpn-systemd-resolved"
)
declare -A programs=(
    [resolved]="lib/systemd/systemd-resolved usr/bin/resolvectl"
    [elogind]="lib/elogind/elogind bin/loginctl bin/elogind-inhibit"
    [networkmanager]="usr/sbin/NetworkManager usr/bin/nmcli"
    [resolvconf]="sbin/resolvconf"
    [openvpn]="etc/openvpn/update-systemd-resolved"
)

fail() {
    printf 'fetch-daemons.sh: %s\n' "$*" >&2
    exit 1
}

# The package lists of the machine may be absent or too old for the archive: then lists of our own are fetched.
apt_options=()
use_own_lists() {
    local state=$dest/apt
    mkdir -p "$state/lists/partial" "$state/cache/archives/partial"
    apt_options=(-o "Dir::State::Lists=$state/lists" -o "Dir::Cache=$state/cache")
    apt-get -q "${apt_options[@]}" update >>"$dest/fetch.log" 2>&1
}

download() {
    (cd "$dest/archives" && apt-get -q "${apt_options[@]}" -o APT::Sandbox::User= download "$@") >>"$dest/fetch.log" 2>&1
}

archive_of() {
    compgen -G "$dest/archives/${1}_*.deb" | head -n 1
}

fetch_packages() {
    local package
    local -a wanted=()
    for package in "$@"; do
        [ -n "$(archive_of "$package")" ] || wanted+=("$package")
    done
    if [ ${#wanted[@]} -eq 0 ] || download "${wanted[@]}"; then return; fi
    if [ ${#apt_options[@]} -eq 0 ] && use_own_lists && download "${wanted[@]}"; then return; fi
    tail -n 5 "$dest/fetch.log" >&2
    fail "cannot download ${wanted[*]}: is there a network, and does apt know this distribution's archive?"
}

installed() {
    [ "$(dpkg-query -W -f '${db:Status-Status}' "$1" 2>/dev/null)" = installed ]
}

# Names of the libraries that an archive needs, one a line; of alternatives the first.
needed_libraries() {
    dpkg-deb -f "$1" Depends Pre-Depends | sed 's/^[A-Za-z-]*://' | tr ',' '\n' |
        sed 's/[|(].*//; s/:[a-z0-9]*//; s/[[:space:]]//g' | grep '^lib' || true
}

# Level by level: what is wanted, then the libraries that it needs and the machine lacks, and so on.
unpack_daemon() {
    local name=$1 package library
    local -a wanted=() next
    local -A unpacked=()
    read -ra wanted <<<"${packages[$name]}"
    rm -rf "${dest:?}/$name"
    while [ ${#wanted[@]} -gt 0 ]; do
        fetch_packages "${wanted[@]}"
        next=()
        for package in "${wanted[@]}"; do
            [ -z "${unpacked[$package]:-}" ] || continue
            unpacked[$package]=yes
            dpkg-deb -x "$(archive_of "$package")" "$dest/$name"
            for library in $(needed_libraries "$(archive_of "$package")"); do
                installed "$library" || next+=("$library")
            done
        done
        wanted=("${next[@]}")
    done
}

# A command that finds the daemon's own libraries first, and becomes the program so that its process id is the daemon's.
# Newer releases have everything below usr/, and what only daemons start in usr/libexec/.
write_command() {
    local name=$1 program=$2
    local file="$dest/bin/${program##*/}" root="$dest/$name" triplet
    [ -e "$root/$program" ] || program=usr/$program
    [ -e "$root/$program" ] || program=usr/libexec/${program##*/}
    [ -e "$root/$program" ] || fail "the packages of $name hold no ${2##*/}"
    triplet=$(dpkg-architecture -q DEB_HOST_MULTIARCH 2>/dev/null || echo "$(uname -m)-linux-gnu")
    local libraries="$root/usr/lib/$triplet/systemd:$root/usr/lib/$triplet:$root/lib/$triplet:$root/lib/elogind:$root/usr/lib/$triplet/elogind"
    cat >"$file.new" <<END
#!/bin/sh
LD_LIBRARY_PATH='$libraries'
export LD_LIBRARY_PATH
exec '$root/$program' "\$@"
END
    chmod 755 "$file.new"
    mv "$file.new" "$file"
}

check_libraries() {
    local name=$1 program=$2 missing
    # A script has no libraries, which ldd calls a failure.
    missing=$(sed "s/^exec '/exec ldd '/" "$dest/bin/${program##*/}" | { sh 2>/dev/null || true; } |
        awk '/not found/ { print $1 }')
    [ -z "$missing" ] || fail "$name lacks libraries that its packages do not name: $missing"
}

fetch_daemon() {
    local name=$1 stamp=$dest/.$1-complete program
    [ "$(cat "$stamp" 2>/dev/null)" != "$signature" ] || return 0
    rm -f "$stamp"
    unpack_daemon "$name"
    for program in ${programs[$name]}; do
        write_command "$name" "$program"
        check_libraries "$name" "$program"
    done
    printf '%s\n' "$signature" >"$stamp"
}

[ $# -ge 1 ] || { sed -n '4,11s/^# \{0,1\}//p' "$0" >&2; exit 2; }
for tool in apt-get dpkg-deb dpkg-query; do
    command -v $tool >/dev/null || fail "needs $tool (Debian or a relative)"
done
mkdir -p "$1/archives" "$1/bin"
dest=$(cd "$1" && pwd)
shift
[ $# -gt 0 ] || set -- resolved elogind networkmanager resolvconf openvpn
signature="$dest $(sha256sum <"${BASH_SOURCE[0]}")"

exec 9>"$dest/.lock"
flock 9
for daemon in "$@"; do
    [ -n "${packages[$daemon]:-}" ] || fail "no daemon is called '$daemon'"
    fetch_daemon "$daemon"
done
