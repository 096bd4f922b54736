#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
#
# In the root "devel": a newcomer's way. The packages are installed; the example agent is built with nothing but
# libvpnwfoal-dev, lists a certificate that vpnoalctl imported, and brings up a tunnel, which the kernel and
# systemd-resolved confirm. Then the example platform is
# built in the same way, and the same agent and the same installed plug-in run on it instead.
set -euo pipefail
# shellcheck source=checks.sh
. /mnt/tests/checks.sh

runs_agent() {
    VKLOG_TARGET=stderr "$@" /tmp/agent/example-agent 1
}

make_certificate() {
    echo secret >/tmp/password
    openssl req -x509 -newkey rsa:2048 -nodes -keyout /tmp/user.key -out /tmp/user.crt -subj /CN=user &&
        openssl pkcs12 -export -in /tmp/user.crt -inkey /tmp/user.key -passout file:/tmp/password -out /tmp/user.p12
}

# The tunnel as others see it, while the agent holds it.
look_at_tunnel() {
    local agent
    coproc AGENT { exec /tmp/agent/example-agent; }
    agent=$AGENT_PID
    grep -qx ready <&"${AGENT[0]}"
    {
        ip route show dev norvatun0
        resolvectl dns norvatun0
        resolvectl domain norvatun0
    } >/tmp/tunnel
    kill -TERM "$agent"
    wait "$agent"
}

start_resolved() {
    install -d -o systemd-resolve -g systemd-resolve /run/systemd/resolve
    /lib/systemd/systemd-resolved >/tmp/resolved.log 2>&1 &
    until dbus-send --system --print-reply --dest=org.freedesktop.DBus / org.freedesktop.DBus.GetNameOwner \
        string:org.freedesktop.resolve1 >/dev/null 2>&1; do
        kill -0 $! 2>/dev/null || { cat /tmp/resolved.log; failed 'systemd-resolved starts'; }
        sleep 0.05
    done
}

check 'the packages install' dpkg --force-unsafe-io --install /mnt/packages/*.deb
check 'the example agent is configured' cmake -S /mnt/examples/agent -B /tmp/agent
check 'the example agent is built' cmake --build /tmp/agent
check_says 'pkg-config knows the plug-in' '-lVpnWfOal' pkg-config --libs libVpnWfOal

start_network
start_bus
start_resolved
make_certificate >/dev/null 2>&1 || failed 'there is a certificate to import'
check 'a certificate is imported' vpnoalctl certs import --password-file /tmp/password /tmp/user.p12
check_says 'the agent lists it' 'client certificates: 1' runs_agent env
check_says 'the agent brings up a tunnel and takes it down' 'restored' runs_agent env
look_at_tunnel
check_says 'the kernel has its route' '10.20.0.0/16 via 10.8.0.1' cat /tmp/tunnel
check_says 'systemd-resolved has its server' '10.20.0.53' cat /tmp/tunnel
check_says 'systemd-resolved has its domain' 'corp.example' cat /tmp/tunnel
[ ! -e /sys/class/net/norvatun0 ] || failed 'the tunnel is gone with the agent'

check 'the example platform is configured' cmake -S /mnt/examples/platform -B /tmp/platform
check 'the example platform is built' cmake --build /tmp/platform
check_says 'the installed plug-in runs on the example platform' '(not installed): ifName = "norvatun0"' \
    runs_agent env LD_LIBRARY_PATH=/tmp/platform
