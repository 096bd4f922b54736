# shellcheck shell=bash
# SPDX-License-Identifier: Apache-2.0
# For scripts that run in a root file system (in-root.sh): checks that tell what they are about, and a system bus.

failed() {
    echo "failed: $1"
    exit 1
}

# check WHAT COMMAND...: the command must succeed; its output shows only when it does not.
check() {
    "${@:2}" >/tmp/output 2>&1 || { cat /tmp/output; failed "$1"; }
    echo "$1"
}

# check_says WHAT TEXT COMMAND...: and print a line with TEXT.
check_says() {
    if ! "${@:3}" >/tmp/output 2>&1 || ! grep -qF -- "$2" /tmp/output; then
        cat /tmp/output
        failed "$1"
    fi
    echo "$1"
}

# check_refused WHAT TEXT COMMAND...: the command must fail, with TEXT.
check_refused() {
    if "${@:3}" >/tmp/output 2>&1 || ! grep -qF -- "$2" /tmp/output; then
        cat /tmp/output
        failed "$1"
    fi
    echo "$1"
}

# The distribution's own configuration of the system bus, with the policies and activation files that were installed.
start_bus() {
    mkdir -p /run/dbus
    dbus-daemon --system --fork --nopidfile --print-pid=1 >/run/bus.pid
}

start_network() {
    ip link set lo up
    ip link add eth0 type veth peer name access
    ip address add 192.0.2.10/24 dev eth0
    ip link set eth0 up
    ip link set access up
    ip route add default via 192.0.2.1
}
