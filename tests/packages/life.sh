#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
#
# In the root "runtime": the packages are installed, used, installed once more, removed and purged. Nothing stays but
# dpkg's own records.
set -euo pipefail
# shellcheck source=checks.sh
. /mnt/tests/checks.sh
services='vesk-certificatemanager vesk-connectionmanager'

# What the loader and dpkg keep for themselves is theirs.
all_files() {
    find / -xdev \( -path /var/lib/dpkg -o -path /var/log/dpkg.log -o -path /var/cache/ldconfig \
        -o -path /etc/ld.so.cache \) -prune -o -printf '%p %y %m %u:%g %l\n' | sort
    find /etc /usr/share -xdev -type f ! -name ld.so.cache -exec sha256sum {} + | sort
}

install_packages() {
    dpkg --force-unsafe-io --install /mnt/packages/{libvpnwfoal0,libvpnwfoal-platform0,vpnwfoal-services,vpnoalctl}_*.deb
}

is_enabled() {
    [ -L "/etc/systemd/system/multi-user.target.wants/$1.service" ]
}

# Every program and library of the packages finds what it needs.
all_libraries_found() {
    local files
    mapfile -t files < <(dpkg -L libvpnwfoal0 libvpnwfoal-platform0 vpnwfoal-services vpnoalctl |
        grep -E '/lib/.*\.so\.|/bin/.|/libexec/.|/lib/vpnwfoal/.')
    [ ${#files[@]} -gt 10 ] && ldd "${files[@]}" >/tmp/libraries && ! grep 'not found' /tmp/libraries
}

call_as() {
    setpriv --reuid "$1" --regid nogroup --clear-groups dbus-send --system --print-reply --dest="$2" / com.vesk.JsonService1."$3" string:'{}'
}

runs_installed() {
    local link
    for link in /proc/[0-9]*/exe; do
        [ "$(readlink "$link")" != "/usr/libexec/$1" ] || return 0
    done
    return 1
}

stop_programs() {
    local link
    for link in /proc/[0-9]*/exe; do
        case $(readlink "$link") in
        /usr/libexec/vesk-*) kill "$(basename "$(dirname "$link")")" ;;
        esac
    done
    kill "$(cat /run/bus.pid)"
}

all_files >/tmp/before
check 'the packages install on what they depend on' install_packages
check 'dpkg finds nothing wrong' dpkg --audit
check 'every library is found' all_libraries_found
for service in $services; do
    check "$service is enabled" is_enabled "$service"
    check "$service has a unit that systemd takes" systemd-analyze verify --man=no "$service.service"
done
# An instance of a template has the paths of its programs looked at too.
for unit in vpnoal-openvpn{,-restore}@office vpnoal-wg{,-restore}@home; do
    check "$unit is a unit that systemd takes" systemd-analyze verify --man=no --recursive-errors=no "$unit.service"
done

start_network
start_bus
check_says 'vpnoalctl loads the installed plug-in' '/usr/lib/' vpnoalctl info
check_says 'vpnoalctl lists the interface' eth0 vpnoalctl interfaces
check_says 'the connection manager starts when root calls' '192.0.2.10' call_as root com.vesk.connectionmanager getStatus
check_says 'and answers anybody' '"interfaceName":"eth0"' call_as nobody com.vesk.connectionmanager getStatus
check_refused 'the certificate manager is for root only' AccessDenied call_as nobody com.vesk.certificatemanager addcertificate
check_says 'the certificate manager starts when root calls' 'certificateFilename: missing' call_as root com.vesk.certificatemanager addcertificate
check_says 'vpnoalctl reaches the services' eth0 vpnoalctl bus call vesk://com.vesk.connectionmanager/getStatus
for service in $services; do
    check "the $service that runs is the installed one" runs_installed "$service"
done
stop_programs

rm /etc/systemd/system/multi-user.target.wants/vesk-connectionmanager.service
check 'the packages install once more' install_packages
check 'what the administrator left is still enabled' is_enabled vesk-certificatemanager
is_enabled vesk-connectionmanager && failed 'what the administrator disabled was enabled again'

check 'the packages are removed' dpkg --remove vpnoalctl vpnwfoal-services libvpnwfoal0 libvpnwfoal-platform0
for service in $services; do
    [ ! -e "/usr/lib/systemd/system/$service.service" ] || failed "$service is still there"
done
check 'the packages are purged' dpkg --purge vpnoalctl vpnwfoal-services libvpnwfoal0 libvpnwfoal-platform0
all_files >/tmp/after
check 'nothing is left behind' diff /tmp/before /tmp/after
