#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# What systemd.sh runs under its systemd: the services are up, and come back whatever happens to them or to the bus.
set -euo pipefail
services=(vesk-connectionmanager vesk-certificatemanager)

failed() {
    echo "failed: $1"
    systemctl --no-pager status "${services[@]}" dbus || true
    exit 1
}

# eventually WHAT COMMAND...: the command succeeds within 20 seconds.
eventually() {
    local end=$((SECONDS + 20))
    until "${@:2}" >/run/output 2>&1; do
        [ $SECONDS -lt $end ] || { cat /run/output; failed "$1"; }
        sleep 0.1
    done
    echo "$1"
}

has() {
    [ "$(systemctl show --value -p "$2" "$1")" = "$3" ]
}

answers() {
    busctl --system --timeout=2 call com.vesk.connectionmanager / com.vesk.JsonService1 getStatus s '{}' &&
        busctl --system --timeout=2 --auto-start=no call com.vesk.certificatemanager / org.freedesktop.DBus.Peer Ping
}

are_active() {
    systemctl is-active vesk-connectionmanager.service && systemctl is-active vesk-certificatemanager.service
}

main_pid() {
    systemctl show --value -p MainPID "$1"
}

runs_anew() {
    local pid
    pid=$(main_pid "$1")
    [ "$pid" != 0 ] && [ "$pid" != "$2" ] && has "$1" ActiveState active
}

folders_are_roots() {
    local folder
    [ "$(stat -c '%U %a' /tmp/vpncerts)" = 'root 700' ] || return
    for folder in '' /main /user /profile /l10n /script /temp; do
        [ "$(stat -c '%U %a' "/tmp/vpn$folder")" = 'root 755' ] || return
    done
}

eventually 'both services are active' are_active
eventually 'both answer' answers
eventually 'their start made the folders of agents for root' folders_are_roots
for service in "${services[@]}"; do
    eventually "$service may use 128 MiB" has "$service" MemoryMax 134217728
    eventually "$service may have 16 tasks" has "$service" TasksMax 16
    eventually "$service leaves no core dump" has "$service" LimitCORE 0
    eventually "$service is exposed to 1.5 of 10 at most" systemd-analyze security --no-pager --threshold=15 "$service"
done

systemctl restart dbus.service
eventually 'both answer after a restart of the bus' answers
eventually 'both are active after a restart of the bus' are_active

systemctl kill --signal=KILL dbus.service
eventually 'the bus is stopped by the kill' systemctl start dbus.service
eventually 'both answer after the bus was killed' answers

for service in "${services[@]}"; do
    for signal in TERM KILL ABRT; do
        pid=$(main_pid "$service")
        kill -s $signal "$pid"
        eventually "$service is started again after SIG$signal" runs_anew "$service" "$pid"
    done
done
# More often than systemd's own limit of five within ten seconds lets pass.
eventually 'both answer again' answers

pid=$(main_pid vesk-connectionmanager)
kill -s STOP "$pid"
eventually 'a service whose loop stands still is started again' runs_anew vesk-connectionmanager "$pid"
eventually 'both answer at the end' answers
echo 'all done'
