#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# systemd.sh BUILD SCRIPT [PROGRAM...]: the project's units as systemd runs them, installed from the build: a systemd of
# its own, first process of private namespaces, with a private /run, cgroup tree and system bus, and with no unit but
# those named here. Then the script beside this one asks and restarts things in there. Exits with 77 where that cannot be
# done, or where there is no such PROGRAM.
set -euo pipefail
build=$1 script=$2 here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
init=/lib/systemd/systemd log=$build/$script.log

cannot() {
    echo "$1"
    exit 77
}

if [ "${3:-}" != --inside ]; then
    for program in "${@:3}"; do
        command -v "$program" >/dev/null || cannot "$program is not installed"
    done
    [ "$(id -u)" -eq 0 ] || cannot 'running a systemd takes root'
    read -r _ _ users </proc/self/uid_map
    [ "$users" = 4294967295 ] || cannot 'a user namespace can make no devices'
    [ -x $init ] || cannot 'systemd is not installed'
    hierarchy=$(awk '$3 == "cgroup2" { print $2; exit }' /proc/mounts)
    [ -n "$hierarchy" ] || cannot 'there is no cgroup2 tree'
    group=$hierarchy/wfoal-systemd.$$
    : >"$log"
    mkdir "$group" 2>/dev/null || cannot "$hierarchy cannot be written"
    # What ran in the group is dead by then; the kernel may need a moment to notice.
    # shellcheck disable=SC2317  # the trap calls it
    remove_group() {
        local tries=0
        until find "$group" -depth -type d -exec rmdir {} + 2>/dev/null || [ $((tries++)) -ge 100 ]; do
            sleep 0.05
        done
        [ ! -d "$group" ] || echo "$group stays behind"
    }
    trap remove_group EXIT
    # shellcheck disable=SC2016  # for the shell in the group
    timeout --kill-after=5 120 sh -c 'echo $$ >"$1/cgroup.procs"; shift; exec "$@"' sh "$group" \
        unshare --cgroup --pid --fork --kill-child "$build/bin/isolate" "$here/systemd.sh" "$build" "$script" --inside ||
        { cat "$log"; exit 1; }
    grep -qx 'all done' "$log"
    exit
fi

# The kernel's settings and devices are the machine's: they can be read only.
mount -t proc proc /proc
mount --bind /proc/sys /proc/sys
mount -o remount,bind,ro /proc/sys
mount -t sysfs -o ro sysfs /sys
mount -t cgroup2 cgroup2 /sys/fs/cgroup
mount -t tmpfs -o mode=755 private /dev
for device in 'null 1 3' 'zero 1 5' 'full 1 7' 'random 1 8' 'urandom 1 9' 'tty 5 0' 'net/tun 10 200'; do
    read -r name major minor <<<"$device"
    mkdir -p "/dev/$(dirname "$name")"
    mknod -m 666 "/dev/$name" c "$major" "$minor"
done
ln -s /proc/self/fd /dev/fd
mkdir /dev/pts /dev/shm /dev/mqueue /dev/hugepages
mount -t devpts -o newinstance,ptmxmode=666 devpts /dev/pts
ln -s pts/ptmx /dev/ptmx

installed=/var/installed
for component in HostPlatform Services Plugin Tools; do
    cmake --install "$build" --prefix $installed --component $component >/run/install.log || { cat /run/install.log; exit 1; }
done
rm -rf /etc/dbus-1 /etc/tmpfiles.d /etc/machine-id
mkdir -p /etc/dbus-1/system.d /etc/tmpfiles.d
cp $installed/share/dbus-1/system.d/*.conf /etc/dbus-1/system.d
cp $installed/lib/tmpfiles.d/vpnwfoal.conf /etc/tmpfiles.d
cat >/etc/dbus-1/system-local.conf <<END
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig><servicedir>$installed/share/dbus-1/system-services</servicedir></busconfig>
END

units=/run/units
mkdir -p $units /run/generators /run/dbus
cp $installed/lib/systemd/system/*.service $units
cp /lib/systemd/system/dbus.service /lib/systemd/system/dbus.socket $units
for target in sysinit basic shutdown multi-user; do
    printf '[Unit]\nDescription=%s\nDefaultDependencies=no\n' $target >$units/$target.target
done
# As installed, but a loop that stands still is found soon.
mkdir $units/vesk-connectionmanager.service.d
printf '[Service]\nWatchdogSec=2\n' >$units/vesk-connectionmanager.service.d/soon.conf
cat >$units/driver.service <<END
[Unit]
Wants=dbus.socket vesk-connectionmanager.service vesk-certificatemanager.service
After=dbus.socket vesk-connectionmanager.service vesk-certificatemanager.service
FailureAction=exit-force
SuccessAction=exit-force
SuccessActionExitStatus=0
FailureActionExitStatus=1
[Service]
Type=oneshot
ExecStart=/bin/bash $here/$script
StandardOutput=file:$log
StandardError=inherit
END
exec env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin container=private SYSTEMD_UNIT_PATH=$units \
    SYSTEMD_GENERATOR_PATH=/run/generators SYSTEMD_ENVIRONMENT_GENERATOR_PATH=/run/generators \
    $init --system --unit=driver.service --log-target=null --show-status=no
