#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# demo.sh [OPTION...]: a whole connection through the plug-in, on a real kernel and with real daemons. A certificate is
# imported, an interface chosen, gateways judged, a tunnel brought up through TLS, used, moved from Wi-Fi to cellular and
# back, put to sleep, killed, cleaned up and restored. Then OpenVPN itself makes the tunnel, and the plug-in configures
# it. Each step is one line: what, how long, how it was verified with an independent tool.
#
#   --json           a JSON object a line instead: the steps, then a summary
#   --step           stop after each step until Enter is pressed
#   --keep           at the end, or where a step failed, leave a shell inside, with the connection up
#   --plot FILE      draw the time line into FILE, a picture (SVG) with links, packets and outages
#   --build FOLDER   use this build as it is, and install nothing
#
# All of it happens in private namespaces, which vanish when the demo ends, also on Ctrl-C: the machine's interfaces,
# routes, rules, DNS and files stay as they are. Only missing packages are installed, through sudo, and this folder's
# build/ is written. Needs no root otherwise; what an ordinary user cannot do is skipped, with the reason.
#
# Exit status: 0 every step was verified; 1 a step failed; 2 wrong usage; 3 what could be done here was verified, the
# rest was skipped; 130 interrupted.
set -euo pipefail
invoked_from=$PWD
cd "$(dirname "${BASH_SOURCE[0]}")"

die() {
    printf 'demo.sh: %s\n' "$1" >&2
    exit "${2:-1}"
}

usage_error() { die "$* (see --help)" 2; }

# Names on the command line are meant from where it was typed.
from_there() { case $1 in /*) printf '%s' "$1" ;; *) printf '%s/%s' "$invoked_from" "$1" ;; esac; }

build='' json=false keep=false step=false plot=''
while [ $# -gt 0 ]; do
    case $1 in
    --json) json=true ;;
    --keep) keep=true ;;
    --step) step=true ;;
    --plot | --build)
        [ $# -ge 2 ] || usage_error "$1 needs a value"
        if [ "$1" = --plot ]; then plot=$(from_there "$2"); else build=$(from_there "$2"); fi
        shift
        ;;
    -h | --help)
        sed -n '4,22s/^# \{0,1\}//p' demo.sh
        exit 0
        ;;
    *) usage_error "unknown option '$1'" ;;
    esac
    shift
done
[ -z "$build" ] || [ -x "$build/bin/samplegateway" ] || die "there is no build in $build" 2
daemons=${WFOAL_DAEMONS_DIR:-$PWD/build/daemons}
[ -z "$build" ] || [ -x "$daemons/bin/systemd-resolved" ] ||
    die "there is no systemd-resolved in $daemons; tests/support/fetch-daemons.sh unpacks it there" 2

quietly() {
    local what=$1
    shift
    $json || echo "$what …"
    "$@" >build/demo.log 2>&1 && return
    tail -n 20 build/demo.log >&2
    die "$what failed; all of its output is in build/demo.log"
}

if [ -z "$build" ]; then
    build=$PWD/build/demo
    mkdir -p build
    packaging/install-packages.sh build demo >&2
    quietly 'Fetching systemd-resolved and elogind (unpacked here, not installed)' \
        tests/support/fetch-daemons.sh build/daemons resolved elogind
    quietly 'Configuring' cmake --preset demo
    quietly 'Building (a few minutes the first time)' cmake --build --preset demo
fi
build=$(cd "$build" && pwd)

# Opened here: inside, the folder may be covered by a private one.
plot_descriptor=
if [ -n "$plot" ]; then
    exec {plot_descriptor}>"$plot" || die "cannot write $plot" 2
fi

namespaces=(--mount --pid --fork --kill-child --mount-proc)
if [ "$(id -u)" -ne 0 ]; then
    namespaces+=(--user --map-root-user)
    $json || echo 'As an ordinary user: in a user namespace.'
fi
unshare "${namespaces[@]}" true 2>/dev/null ||
    die 'this machine does not let this user make private namespaces (unshare); try as root'

# With its first process the kernel kills everything that runs in the namespaces, and they vanish with it; unshare waits
# for just that. When it has no child yet there is nothing but itself.
# shellcheck disable=SC2317  # called by the trap
interrupted() {
    local inside
    inside=$(pgrep -P "$!" || true)
    kill -KILL "${inside:-$!}" 2>/dev/null || true
    wait "$!" 2>/dev/null || true
    printf '\nInterrupted; nothing is left behind.\n' >&2
    exit 130
}
trap interrupted INT TERM HUP
# Beside this script, so that a signal is heard at once; what is typed is for the story all the same.
unshare "${namespaces[@]}" "$build/bin/isolate" bash examples/demo/story.sh "$build" $json $keep $step "$plot_descriptor" <&0 &
status=0
wait "$!" || status=$?
exit "$status"
