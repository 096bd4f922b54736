#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# story.sh BUILD JSON KEEP STEP PLOT: what demo.sh shows, once it has everything and is in private namespaces. BUILD is
# the build folder, PLOT the descriptor that a picture is written to, or empty; the others are true or false.
set -euo pipefail
build=$1 as_json=$2 keep=$3 by_step=$4 plot=$5
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
top=$(cd "$here/../.." && pwd)
logs=/run/demo
secrets=/run/demo-secrets
mkdir $logs
chapter=Preparation
in_user_namespace=false
[ "$(awk '{ print $1, $2, $3 }' /proc/self/uid_map)" = '0 0 4294967295' ] || in_user_namespace=true
have_tun=true
(: <>/dev/net/tun) 2>/dev/null || have_tun=false
# As the first process of its namespaces this one ignores what it does not trap.
# Where an ordinary user's shell does not look.
PATH=$PATH:/usr/sbin:/sbin
trap 'exit 130' INT TERM HUP

# shellcheck source=../../tests/support/daemons.sh
. "$top/tests/support/daemons.sh"
# shellcheck source=steps.sh
. "$here/steps.sh"
# shellcheck source=processes.sh
. "$here/processes.sh"
# shellcheck source=network.sh
. "$here/network.sh"
# shellcheck source=snapshots.sh
. "$here/snapshots.sh"
# shellcheck source=authority.sh
. "$here/authority.sh"
# shellcheck source=captures.sh
. "$here/captures.sh"
# shellcheck source=agent.sh
. "$here/agent.sh"
# shellcheck source=watching.sh
. "$here/watching.sh"
# shellcheck source=traffic.sh
. "$here/traffic.sh"
# shellcheck source=connection.sh
. "$here/connection.sh"
# shellcheck source=endurance.sh
. "$here/endurance.sh"
# shellcheck source=openvpn.sh
. "$here/openvpn.sh"

resolvectl=$daemons_folder/bin/resolvectl
export VKLOG_TARGET=stderr VKLOG_LEVEL=4

tell() {
    $as_json || printf '  %s%s%s\n' "$faint" "$*" "$plain"
}

# A shell among the networks, with what the story has set up; with commands on standard input they are run instead.
keep_shell() {
    $keep || return 0
    $as_json || printf '\n%sA shell inside. Try: ip route; nft list ruleset; in_gateway ss -t. Its end ends everything.%s\n' "$bold" "$plain"
    export -f in_wifi in_cellular in_internet in_gateway in_asked in_refused in_office
    bash --norc || true
}

keep_connected() {
    $keep || return 0
    if $have_tun; then
        start_agent
        await_event connected
    fi
    keep_shell
    keep=false
    if $have_tun; then stop_agent; fi
}

# A command that failed outside of a step has ended the demo, and nobody has said so.
tell_unexpected_end() {
    [ "$1" -eq 0 ] || $failure_told || (failed "what comes next in this chapter" "success" "exit status $1") || true
}

draw_timeline() { python3 -B "$here/timeline.py" "$logs/steps.tsv" "$story_began" "$@"; }

summarize() {
    local status=$? verdict
    trap - EXIT ERR
    [ $status -ne 130 ] || exit 130
    tell_unexpected_end $status
    [ $status -eq 0 ] || status=1
    [ $status -eq 0 ] || keep_shell
    [ $status -ne 0 ] || [ "$steps_skipped" -eq 0 ] || status=3
    [ -z "$plot" ] || [ ! -s $logs/steps.tsv ] || draw_timeline --svg >&"$plot"
    if $as_json; then
        json_line summary "=$(json_line verified "=$steps_verified" skipped "=$steps_skipped" exitStatus "=$status" \
            milliseconds "=$(milliseconds $(($(now) - story_began)))")"
        exit $status
    fi
    printf '\n%sTime line%s\n' "$bold" "$plain"
    [ ! -s $logs/steps.tsv ] || draw_timeline
    verdict="$steps_verified steps verified"
    [ "$steps_skipped" -eq 0 ] || verdict+=", $steps_skipped skipped"
    case $status in
    0 | 3) printf '\n%s%s.%s\n' "$good" "$verdict" "$plain" ;;
    *) printf '\n%sA step failed after %d verified ones.%s\n' "$bad" "$steps_verified" "$plain" ;;
    esac
    exit $status
}
trap summarize EXIT
trap 'failed "preparation ($BASH_COMMAND)" "success" "exit status $?"' ERR

tell_networks
tell_services
if ! $have_tun; then build_plain_link; fi
take_snapshot
tell_certificate
tell_gateways
tell_connection
tell_configuration
tell_traffic
tell_network_changes
tell_sleep
tell_kill
tell_quiet
tell_restore
tell_openvpn
keep_connected
