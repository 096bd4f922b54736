#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# demo.sh [--build FOLDER]: shows the plug-in at work on a real kernel. A sample agent loads it, brings up a tunnel to a
# gateway, and every step is verified with an independent tool: ip, resolvectl, nft, ping, ss.
#
#   --build FOLDER   use this build as it is, and install nothing
#
# All of it happens in private namespaces, which vanish when the demo ends, also on Ctrl-C: the machine's interfaces,
# routes, rules, DNS and files stay as they are. Only missing packages are installed, through sudo, and this folder's
# build/ is written. Needs no root otherwise; what an ordinary user cannot do is skipped, with the reason.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"

die() {
    printf 'demo.sh: %s\n' "$*" >&2
    exit 1
}

build=
case ${1:-} in
'') ;;
--build)
    [ $# -eq 2 ] || die '--build needs a folder'
    [ -x "$2/bin/sampleagent" ] || die "there is no build in $2"
    build=$(cd "$2" && pwd)
    ;;
-h | --help)
    sed -n '4,12s/^# \{0,1\}//p' demo.sh
    exit 0
    ;;
*) die "unknown option '$1' (see --help)" ;;
esac

quietly() {
    local what=$1
    shift
    echo "$what …"
    "$@" >build/demo.log 2>&1 && return
    tail -n 20 build/demo.log >&2
    die "$what failed; all of its output is in build/demo.log"
}

if [ -z "$build" ]; then
    build=$PWD/build/release
    mkdir -p build
    packaging/install-packages.sh build test
    quietly 'Fetching systemd-resolved (unpacked here, not installed)' tests/support/fetch-daemons.sh build/daemons resolved
    quietly 'Configuring' cmake --preset release
    quietly 'Building (a few minutes the first time)' cmake --build --preset release --target sampleagent vpnoalctl isolate
fi

namespaces=(--mount --pid --fork --kill-child --mount-proc)
if [ "$(id -u)" -ne 0 ]; then
    namespaces+=(--user --map-root-user)
    echo 'As an ordinary user: in a user namespace.'
fi
unshare "${namespaces[@]}" true 2>/dev/null ||
    die 'this machine does not let this user make private namespaces (unshare); try as root'

# When unshare is killed the kernel kills everything that runs in its namespaces, and they vanish with it.
# shellcheck disable=SC2317  # called by the trap
interrupted() {
    kill -KILL "$!" 2>/dev/null || true
    wait "$!" 2>/dev/null || true
    printf '\nInterrupted; nothing is left behind.\n'
    exit 130
}
trap interrupted INT TERM HUP
unshare "${namespaces[@]}" "$build/bin/isolate" bash examples/demo/story.sh "$build" &
status=0
wait "$!" || status=$?
exit "$status"
