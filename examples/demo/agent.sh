# shellcheck shell=bash
# SPDX-License-Identifier: Apache-2.0
#
# The agent of the story: the sample client, whose events are one JSON line each.

# shellcheck disable=SC2154  # shared with story.sh and its other parts
start_agent() {
    run_beside agent "$build/bin/sampleclient" --json "$here/profile.json" "$here/gateway.json"
}

# await_event EVENT [REGEX] [SECONDS]: skips other events. The event is in $matched_line.
await_event() {
    wait_for_line agent "\"event\":\"$1\".*${2:-}" "${3:-20}" ||
        failed "the agent's event '$1'" "a line with \"event\":\"$1\" ${2:-}" "$(tail -n 6 "$logs/agent.log")"
}

# What the agent said of itself, for steps that have no other witness.
agent_log() { printf '%s\n' "$matched_line"; }

# stop_agent: as Ctrl-C does. A shell starts programs beside it with SIGINT ignored, hence SIGTERM.
stop_agent() {
    stop_beside agent TERM
    [ "$ended_with" -eq 0 ] || failed 'the end of the agent' 'exit status 0' "$ended_with: $(tail -n 5 "$logs/agent.log")"
}

outer_connection() { ss -H -n -t state established dst 198.51.100.2; }

# The handset's, which tells this connection from every other in a gateway's log.
outer_port() { outer_connection | sed -nE 's/.*%[a-z0-9]+:([0-9]+) .*/\1/p'; }

installed_filters() { echo "$(nft list ruleset | grep -c 'dport 9999 drop') rule"; }

status_of_networks() {
    busctl --system call com.vesk.connectionmanager / com.vesk.JsonService1 getStatus s '{}' | tr -d \\
}

# start_gateway NAMESPACE GATEWAY [--no-device]
start_gateway() {
    local name=$1 gateway=$2
    shift 2
    start_until "$name" '^ready' nsenter "--net=/run/netns/$name" "$build/bin/samplegateway" "$here/profile.json" "$gateway" \
        "$secrets/$name.pem" "$secrets/$name.key" "$secrets/authority.pem" "$@"
}

# gateway_log NAME REGEX: the next line of a gateway that matches.
gateway_log() {
    wait_for_line "$1" "$2" 5 || true
    printf '%s\n' "$matched_line"
}

is_inhibited() {
    busctl --system call org.freedesktop.login1 /org/freedesktop/login1 org.freedesktop.login1.Manager ListInhibitors |
        grep -q norva-vpnagentd
}

# Whatever happens to the tunnel's addresses and routes, from now on.
watch_configuration() {
    local attempt
    run_beside changes ip monitor route address
    # It does not say when it listens.
    for attempt in {1..20}; do
        reach_mark 1 && return
    done
    failed 'the watcher of changes' 'ip monitor sees a change' "nothing in $attempt attempts"
}

# reach_mark SECONDS: a change of our own shows that all before it was seen. No two marks are alike.
reach_mark() {
    local mark=198.18.$((RANDOM % 256)).$((RANDOM % 256))
    ip route add unreachable "$mark"
    ip route del unreachable "$mark"
    wait_for_line changes "Deleted unreachable ${mark//./\\.} " "$1"
}

configuration_changes() {
    reach_mark 5 || { echo 'ip monitor does not answer'; return; }
    echo "$(grep -c norvatun0 "$logs/changes.log" || true) changes"
}
