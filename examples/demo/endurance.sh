# shellcheck shell=bash
# SPDX-License-Identifier: Apache-2.0
#
# The chapters of what happens to a connection that stands, and of its end.

# shellcheck disable=SC2154,SC2034  # shared with story.sh and its other parts
# expect_reconnected STEP ADDRESS INTERFACE
expect_reconnected() {
    await_event connected
    expect "$1" "${2//./\\.}%$3:.*198\\.51\\.100\\.2:443" outer_connection
    expect 'ping through the tunnel again' '1 received' ping -n -q -c 1 -W 5 10.20.0.80
}

tell_network_changes() {
    local changed
    chapter 'Wi-Fi is lost, and comes back'
    if ! $have_tun; then
        skipped 'reconnecting when the network changes' 'this user may not open /dev/net/tun'
        return
    fi
    watch_configuration
    start_traffic
    step_began=$(now)
    changed=$step_began
    wifi_off
    await_event network-changed
    expect 'the plug-in tells the agent' 'network-changed' agent_log
    expect 'as the connection manager sees it' '"wifi":\{"state":"disconnected".*"wan":\{"state":"connected"' status_of_networks
    expect_reconnected 'rebound to the cellular network, reconnected' 203.0.113.10 rmnet0
    expect 'the outage' '^[0-9]+ ms' outage "$changed" true
    changed=$(now)
    wifi_on
    await_event network-changed
    expect 'Wi-Fi is back: the plug-in tells the agent' 'network-changed' agent_log
    expect_reconnected 'rebound to Wi-Fi, reconnected' 192.0.2.10 eth0
    expect 'the outage' '^[0-9]+ ms' outage "$changed" true
    stop_traffic
}

tell_sleep() {
    chapter 'The device sleeps, and wakes up'
    if $in_user_namespace || ! $have_tun; then
        skipped 'suspend and resume' 'elogind cannot mount its cgroup tree in a user namespace'
        return
    fi
    start_capture_of_ends
    wait_until is_inhibited || failed 'the inhibitor' 'the plug-in holds a sleep inhibitor' 'none'
    step_began=$(now)
    busctl --system call org.freedesktop.login1 /org/freedesktop/login1 org.freedesktop.login1.Manager Suspend b false
    await_event suspended
    expect 'the plug-in tells the agent' 'suspended' agent_log
    await_event resumed
    expect 'the device slept, a private /sys/power did' '^(mem|freeze|standby)' cat /sys/power/state
    expect 'and the agent is told' 'resumed' agent_log
    expect 'the outer connection was closed in time' '^closed [0-9]+ ms before' closed_before_sleep
    expect_reconnected 'bound and connected again' 192.0.2.10 eth0
    expect "the tunnel's addresses and routes stayed all the while" '^0 changes' configuration_changes
}

tell_quiet() {
    chapter 'Beside the tunnel'
    expect 'no packet of the tunnelled network all the while' '^only the deliberate leak, once on each' leaks_seen
}

tell_kill() {
    chapter 'The agent is killed'
    if ! $have_tun; then
        skipped 'cleaning up after a killed agent' 'this user may not open /dev/net/tun'
        return
    fi
    stop_beside agent KILL
    expect 'its device is gone with it' 'does not exist' ip link show norvatun0
    expect 'its filter is stale' 'table inet vpn\.vpnoal' nft list tables
    start_agent
    await_event connected
    expect 'the next start cleans up and connects' '192\.0\.2\.10%eth0:.*198\.51\.100\.2:443' outer_connection
    expect 'one filter, its own' '^1 rule' installed_filters
    expect 'ping through the tunnel again' '1 received' ping -n -q -c 1 -W 5 10.20.0.80
}

tell_restore() {
    chapter 'Restore'
    if $have_tun; then
        stop_agent
    else
        "$build/bin/vpnoalctl" restore >>"$logs/agent.log" 2>&1 ||
            failed 'vpnoalctl restore' 'exit status 0' "$(tail -n 5 "$logs/agent.log")"
    fi
    compare_snapshot 'addresses, routes, rules, filter and DNS are as before'
    expect 'the network behind the gateway is out of reach again' '^[^0-9]*(1 packets transmitted, 0 received|connect:)|nreachable' \
        ping -n -c 1 -W 5 10.20.0.80
    if $have_tun; then
        expect 'control: the watcher of changes has seen the end' '^[1-9][0-9]* changes' configuration_changes
    fi
}
