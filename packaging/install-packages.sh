#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# install-packages.sh PURPOSE...: installs what packaging/apt-packages.txt lists for build, package, test, unit, demo, lint,
# full, devices or musl, and does nothing when all of it is there. Asks for root through sudo, and only then. --list PURPOSE...: prints it.
set -euo pipefail

list=$(dirname "${BASH_SOURCE[0]}")/apt-packages.txt

wanted() {
    awk -v purposes="$*" 'BEGIN { split(purposes, names); for (i in names) wanted[names[i]] }
        /^#/ { next }
        { for (i = 2; i <= NF; ++i) if ($i in wanted) { print $1; next } }' "$list"
}

if [ "${1:-}" = --list ]; then
    shift
    wanted "$@"
    exit
fi

is_installed() {
    dpkg-query -W -f '${db:Status-Status}\n' "$1" 2>/dev/null | grep -qx installed
}

missing=()
for package in $(wanted "$@"); do
    is_installed "$package" || missing+=("$package")
done
[ ${#missing[@]} -gt 0 ] || exit 0

as_root=()
if [ "$(id -u)" -ne 0 ]; then
    if ! command -v sudo >/dev/null; then
        printf 'These packages are missing, and there is no sudo. As root:\n  apt-get install %s\n' "${missing[*]}" >&2
        exit 1
    fi
    as_root=(sudo)
fi
echo "Installing ${missing[*]}"
apt=("${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -q -o DPkg::Lock::Timeout=300)
"${apt[@]}" update
"${apt[@]}" install -y --no-install-recommends "${missing[@]}"
