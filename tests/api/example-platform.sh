#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# example-platform.sh BUILD_FOLDER ISOLATE: a port from its beginning: the example platform is built, then the plug-in
# against it, with nothing but GLib, json-c and OpenSSL, then the example agent, which brings up a tunnel with both. The
# log must hold what the device was asked for.
set -euo pipefail
build=$1 isolate=$2 source=$(realpath "$(dirname "$0")/../..")
work=$(mktemp -d "$build/example-platform.XXXXXX")
trap 'rm -rf "$work"' EXIT

run() {
    "$@" > "$work/log" 2>&1 || { cat "$work/log"; exit 1; }
}

cp -r "$source/examples" "$work/examples"
run cmake -S "$source/examples/platform" -B "$work/platform" -G Ninja
run cmake --build "$work/platform"
# What the example leaves to a port is found, and nothing else.
"$isolate" "$build/bin/vpnoalconform" "$work/platform" > "$work/promises" && { echo 'found nothing'; exit 1; }
diff <(sed -n 's/^not ok  *//p' "$work/promises") - << 'END' || exit 1
VkNetConfigLib.h a malformed interface request is refused
VkNetConfigLib.h a malformed firewall request is refused
VkNetConfigLib.h one line of the log names the key at fault
END

# pkg-config shows these three and what they need themselves; no CMake package is found but those below.
mkdir "$work/modules"
show_module() {
    local module
    for module in "$@"; do
        [ ! -e "$work/modules/$module.pc" ] || continue
        ln -s "$(pkg-config --variable=pcfiledir "$module")/$module.pc" "$work/modules"
        # shellcheck disable=SC2046  # a word each
        show_module $(pkg-config --print-requires --print-requires-private "$module" | cut -d' ' -f1)
    done
}
show_module glib-2.0 json-c openssl
mapfile -t hidden < <(sed -nE 's/^ *find_package\((\w+).*/-DCMAKE_DISABLE_FIND_PACKAGE_\1=ON/p' "$source"/cmake/*.cmake |
    grep -vE '_(PkgConfig|Threads|OpenSSL)=')
[ ${#hidden[@]} -ge 3 ] || { echo "only ${#hidden[@]} CMake packages were hidden"; exit 1; }
PKG_CONFIG_LIBDIR=$work/modules run cmake -S "$source" -B "$work/device" -G Ninja -DWFOAL_PLATFORM=external \
    -DCMAKE_LIBRARY_PATH="$work/platform" -DWFOAL_TESTS=OFF -DWFOAL_TOOLS=OFF -DWFOAL_WERROR=ON -DCMAKE_BUILD_TYPE=Debug \
    "${hidden[@]}"
run cmake --build "$work/device"
if command -v dpkg-query > /dev/null; then
    mapfile -t headers < <(ninja -C "$work/device" -t deps | grep -oE '/usr/include/[^ ]+' | sort -u)
    others=$(dpkg-query -S "${headers[@]}" | cut -d: -f1 | sort -u |
        grep -vxE 'lib(glib2\.0|gio-2\.0|json-c|ssl|c6|pcre2|stdc\+\+-[0-9]+|gcc-[0-9]+)-dev|linux-libc-dev' || true)
    [ -z "$others" ] || { echo "the build uses headers of $others"; exit 1; }
fi
[ -w /dev/net/tun ] || { echo 'there is no tun device for this user'; exit 77; }
run cmake --install "$work/device" --prefix "$work/prefix" --component Plugin
run cmake --install "$work/device" --prefix "$work/prefix" --component Development
# Away from the plug-in's sources.
run cmake -S "$work/examples/agent" -B "$work/agent" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix"
run cmake --build "$work/agent"
[ -z "$(find "$work/prefix" -name 'libquorservice*')" ] || { echo 'a platform of its own was built'; exit 1; }

cat > "$work/handset.sh" << 'END'
ip link add eth0 type veth peer name access
ip address add 192.0.2.10/24 dev eth0
ip link set eth0 up
ip link set access up
ip route add default via 192.0.2.1
exec "$@"
END
library=$(dirname "$(find "$work/prefix" -name libVpnWfOal.so)")
LD_LIBRARY_PATH=$library:$work/platform run "$isolate" bash -e "$work/handset.sh" "$work/agent/example-agent" 1
expected=(
    'outer socket bound to eth0'
    'tunnel configured: 10.20.0.0/16 and corp.example through norvatun0, no mail from it'
    'restored'
    'this device has no service bus'
    'ifName = "norvatun0"'
    '"dns":["0x3500140a"],"additionalIfRoutes":[{"ip":"10.20.0.0","netmask":"255.255.0.0","gateway":"10.8.0.1"'
    'domainsOnIfDns = ["corp.example"]'
    '"interfaceDirection":"out","destinationPort":25,"jumpTo":"DROP"'
    'chainDelete = "NORVA"'
    'CmDelInterfaceCfg: norvatun0'
)
for line in "${expected[@]}"; do
    grep -qF -- "$line" "$work/log" || { cat "$work/log"; echo "missing: $line"; exit 1; }
done
