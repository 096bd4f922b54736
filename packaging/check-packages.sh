#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# check-packages.sh BUILD: every system header that the build in the folder BUILD used comes from a package that
# packaging/apt-packages.txt brings onto an empty system. What is missing would only show on somebody else's machine.
set -euo pipefail
list=$(dirname "${BASH_SOURCE[0]}")/apt-packages.txt

mapfile -t wanted < <(awk '!/^#/ && $2 != "lint" { print $1 }' "$list")
brought=$(apt-get -q -o Dir::State::status=/dev/null -s install --no-install-recommends "${wanted[@]}" | awk '/^Inst/ { print $2 }')
mapfile -t headers < <(ninja -C "$1" -t deps | grep -oE '/usr/include/[^ ]+' | sort -u)
[ ${#headers[@]} -gt 0 ] || { echo "check-packages.sh: nothing was built in $1" >&2; exit 2; }

status=0
for package in $(dpkg-query -S "${headers[@]}" | sed 's/: .*//; s/:[a-z0-9]*//g; s/,//g' | tr ' ' '\n' | sort -u); do
    grep -qx "$package" <<<"$brought" && continue
    echo "apt-packages.txt does not bring $package" >&2
    status=1
done
exit $status
