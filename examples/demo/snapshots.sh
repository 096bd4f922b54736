# shellcheck shell=bash
# SPDX-License-Identifier: Apache-2.0
#
# The handset's state as other tools print it, before and after: it must be the same to the byte. The kernel's own IPv6
# routes come back in another order with a link.

# shellcheck disable=SC2154  # shared with story.sh and its other parts
snapshot_of() {
    case $1 in
    ip) ip -d address && ip rule && ip -4 route show table all && ip -6 route show table all | sort ;;
    nft) nft list ruleset ;;
    resolvectl) "$resolvectl" dns && "$resolvectl" domain && "$resolvectl" default-route ;;
    esac
}

# The kernel finds out in its own time that the other end of a link is up. grep reads to the end: if it stopped at the
# first match, ip would die of a broken pipe, and that would pass for no match.
links_are_settled() { ! { ip link show up && in_wifi ip link show up; } | grep 'NO-CARRIER\|state DOWN' >/dev/null; }

settle() {
    wait_until links_are_settled || failed 'the links' 'every link that is up has its carrier' "$(ip link show up)"
}

declare -A state_before=()

take_snapshot() {
    local tool
    settle
    for tool in ip nft resolvectl; do state_before[$tool]=$(snapshot_of $tool); done
}

# compare_snapshot STEP
compare_snapshot() {
    local tool now
    settle
    for tool in ip nft resolvectl; do
        now=$(snapshot_of $tool)
        [ "$now" = "${state_before[$tool]}" ] ||
            failed "$1" "$tool prints what it printed before" "$(diff <(printf '%s\n' "${state_before[$tool]}") <(printf '%s\n' "$now"))"
    done
    passed "$1" 'ip, nft, resolvectl' 'every line as before'
}
