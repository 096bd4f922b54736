#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# check-packages.sh BUILD PURPOSE...: every system header that the build in the folder BUILD used comes from a package
# that packaging/apt-packages.txt brings onto an empty system for these purposes. What is missing would only show on
# somebody else's machine.
set -euo pipefail
here=$(dirname "${BASH_SOURCE[0]}")
build=$1
shift

mapfile -t wanted < <("$here/install-packages.sh" --list "$@")
brought=$(apt-get -q -o Dir::State::status=/dev/null -s install --no-install-recommends "${wanted[@]}" | awk '/^Inst/ { print $2 }')
mapfile -t headers < <(ninja -C "$build" -t deps | grep -oE '/usr/include/[^ ]+' | sort -u)
[ ${#headers[@]} -gt 0 ] || { echo "check-packages.sh: nothing was built in $build" >&2; exit 2; }

status=0
for package in $(dpkg-query -S "${headers[@]}" | sed 's/: .*//; s/:[a-z0-9]*//g; s/,//g' | tr ' ' '\n' | sort -u); do
    grep -qx "$package" <<<"$brought" && continue
    echo "apt-packages.txt does not bring $package" >&2
    status=1
done
exit $status
