#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# daemons.sh run NAME: becomes the daemon NAME (bus, systembus, resolved, elogind or networkmanager), with whatever it expects to
# find put into the private folders around it first. Only in private namespaces, as `isolate` and the tests make them;
# the programs are those that fetch-daemons.sh unpacked.
#
# Sourced, it offers the same to a script: start_dbus, start_resolved, start_elogind, start_networkmanager and
# wait_for_bus_name. Each start_ function returns when the daemon answers on the bus; daemon_pids has its process id.
# Nothing here waits by sleeping.

daemons_folder=${WFOAL_DAEMONS_DIR:-$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)/build/daemons}
daemons_state=/run/private
declare -A daemon_pids=()
export DBUS_SYSTEM_BUS_ADDRESS=unix:path=$daemons_state/bus

daemons_fail() {
    printf 'daemons.sh: %s\n' "$*" >&2
    return 1
}

# The mounts that isolation makes carry this name; without them a daemon would write into the machine's own folders.
in_private_namespaces() {
    awk '$5 == "/run" || $5 == "/etc" { for (i = 7; i < NF; ++i) if ($i == "-") found[$5] = $(i + 2) }
         END { exit !(found["/run"] == "private" && found["/etc"] == "private") }' /proc/self/mountinfo
}

# True in a user namespace that has one user only, where no process can change its user.
cannot_change_user() {
    [ "$(cat /proc/self/setgroups)" = deny ]
}

prepare_bus() {
    mkdir -p $daemons_state/services
    cat >$daemons_state/bus.conf <<END
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <listen>unix:path=$daemons_state/bus</listen>
  <auth>EXTERNAL</auth>
  <servicedir>$daemons_state/services</servicedir>
  <!-- Any of the few users here may own any name: com.vesk.*, org.freedesktop.resolve1, login1, NetworkManager. -->
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
  </policy>
  <!-- A test of a service's own policy puts it here. -->
  <include ignore_missing="yes">$daemons_state/bus-policy.conf</include>
</busconfig>
END
}

run_bus() {
    prepare_bus
    # Its standard output is closed once the address was read: warnings must not go there too.
    exec dbus-daemon --config-file=$daemons_state/bus.conf --nofork --nopidfile --nosyslog --print-address=1 \
        2>>$daemons_state/bus.log
}

# The distribution's own configuration of the system bus, with the policies that this project and the daemons install,
# and one for the parts that tests play.
run_systembus() {
    local source
    source=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
    rm -rf /etc/dbus-1
    mkdir -p $daemons_state /run/dbus /etc/dbus-1/system.d
    cp "$source"/packaging/dbus/*.conf "$source"/tests/support/played-services.conf /etc/dbus-1/system.d
    cp "$daemons_folder"/*/usr/share/dbus-1/system.d/org.freedesktop.*.conf /etc/dbus-1/system.d 2>/dev/null || true
    add_resolved_user
    exec dbus-daemon --system --address=unix:path=$daemons_state/bus --nofork --nopidfile --nosyslog --print-address=1 \
        2>>$daemons_state/bus.log
}

add_resolved_user() {
    local id=991
    grep -q '^systemd-resolve:' /etc/passwd || echo "systemd-resolve:x:$id:$id::/:/usr/sbin/nologin" >>/etc/passwd
    grep -q '^systemd-resolve:' /etc/group || echo "systemd-resolve:x:$id:" >>/etc/group
}

# systemd-resolved gives up root for a user that an ordinary machine may not have.
run_resolved() {
    local id=991 command=$daemons_folder/bin/systemd-resolved
    add_resolved_user
    mkdir -p /run/systemd
    ln -sfn /run/systemd/resolve/stub-resolv.conf /etc/resolv.conf
    if ! cannot_change_user; then exec "$command"; fi
    # Started as that user already, in a user namespace one further down, it need not change. Port 53 belongs to the
    # namespace above, so it is opened to every user there.
    mkdir -p /run/systemd/resolve
    echo 0 >/proc/sys/net/ipv4/ip_unprivileged_port_start
    exec unshare --user --map-user=$id --map-group=$id --keep-caps "$command"
}

# /sys/power is replaced, so that a suspend ends in a file. elogind keeps sessions in a cgroup tree of its own.
run_elogind() {
    mkdir -p /run/systemd /var/lib/elogind
    mount -t tmpfs -o mode=755 private /sys/power || exit 1
    echo 'freeze mem disk' >/sys/power/state
    echo '[s2idle] deep' >/sys/power/mem_sleep
    echo '[platform] shutdown' >/sys/power/disk
    mount -t tmpfs -o mode=755 private /sys/fs/cgroup
    exec "$daemons_folder/bin/elogind"
}

run_networkmanager() {
    local etc=$daemons_state/NetworkManager
    mkdir -p "$etc/conf.d" "$etc/system-connections" /var/lib/NetworkManager /run/NetworkManager
    [ -e "$etc/NetworkManager.conf" ] ||
        printf '[main]\nplugins=keyfile\ndhcp=internal\n[keyfile]\npath=%s\n' "$etc/system-connections" >"$etc/NetworkManager.conf"
    # There is no udev here to tell that devices are ready. NetworkManager does not wait for it when /sys is read-only,
    # which is only so in a mount namespace of its own.
    exec unshare --mount sh -ec 'mount -t sysfs -o ro private /sys; exec "$@"' sh \
        "$daemons_folder/bin/NetworkManager" --no-daemon --config "$etc/NetworkManager.conf" --config-dir "$etc/conf.d" \
        --intern-config /var/lib/NetworkManager/intern.conf --state-file /var/lib/NetworkManager/state \
        --pid-file /run/NetworkManager/pid
}

wait_for_bus_name() {
    gdbus wait --system --timeout "${2:-20}" "$1" 2>/dev/null || daemons_fail "$1 did not appear on the bus"
}

start_dbus() {
    local address
    mkdir -p $daemons_state
    rm -f $daemons_state/address
    mkfifo $daemons_state/address
    (run_bus) >$daemons_state/address &
    daemon_pids[bus]=$!
    # dbus-daemon prints its address once it listens; the pipe just closes when it could not start.
    read -r address <$daemons_state/address && [ -n "$address" ] && return
    cat $daemons_state/bus.log >&2
    daemons_fail "dbus-daemon did not start"
}

# Either the name appears or the daemon ends, whichever is first.
start_named_daemon() {
    local name=$1 bus_name=$2 log=$daemons_state/$1.log pid waiter first
    ("run_$name") >"$log" 2>&1 &
    pid=$!
    gdbus wait --system --timeout 20 "$bus_name" 2>/dev/null &
    waiter=$!
    wait -n -p first $pid $waiter && [ "$first" = $waiter ] && { daemon_pids[$name]=$pid; return; }
    kill $pid $waiter 2>/dev/null || true
    wait $pid $waiter 2>/dev/null || true
    cat "$log" >&2
    daemons_fail "$name did not start"
}

start_resolved() { start_named_daemon resolved org.freedesktop.resolve1; }
start_elogind() { start_named_daemon elogind org.freedesktop.login1; }
start_networkmanager() { start_named_daemon networkmanager org.freedesktop.NetworkManager; }

stop_daemon() {
    local pid=${daemon_pids[$1]:-}
    [ -n "$pid" ] || return 0
    unset "daemon_pids[$1]"
    kill "$pid" 2>/dev/null
    wait "$pid" 2>/dev/null || true
}

if [ "${BASH_SOURCE[0]}" = "$0" ]; then
    set -euo pipefail
    if [ $# -ne 2 ] || [ "$1" != run ] || ! declare -F "run_$2" >/dev/null; then
        sed -n '4,11s/^# \{0,1\}//p' "$0" >&2
        exit 2
    fi
    in_private_namespaces || { daemons_fail "only for private namespaces"; exit 1; }
    "run_$2"
fi
