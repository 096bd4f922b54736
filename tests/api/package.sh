#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# package.sh BUILD_FOLDER ISOLATE: installs into a folder of its own, where what was installed finds itself. Then builds
# a small agent outside the tree with find_package() and with pkg-config, loading the plug-in and linking against it, and
# runs each.
set -euo pipefail
build=$1 isolate=$2 here=$(dirname "$(realpath "$0")")
work=$(mktemp -d "$build/package.XXXXXX")
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" > "$work/install.log" || { cat "$work/install.log"; exit 1; }
library=$(dirname "$(find "$prefix" -name libVpnWfOal.so | head -1)")
expected='4 interfaces; system object created, named right and disposed of'

check() {
    local printed
    printed=$(env VKLOG_TARGET=stderr "${@:2}" "$isolate" "$1" 2> "$work/log") || { cat "$work/log"; exit 1; }
    [ "$printed" = "$expected" ] || { echo "$1 printed: $printed"; exit 1; }
    echo "$(basename "$1"): $printed"
}

# Nothing tells the programs where their libraries are, or the units where their programs are.
"$isolate" "$prefix/bin/vpnoalctl" --json info > "$work/info" 2>&1 || { cat "$work/info"; exit 1; }
for program in "$prefix"/libexec/*; do
    unit=$prefix/lib/systemd/system/$(basename "$program").service
    grep -qx "ExecStart=$program" "$unit" || { cat "$unit"; exit 1; }
    grep -qx "Exec=$program" "$prefix"/share/dbus-1/system-services/com.vesk."${program##*/vesk-}".service
    unresolved=$(ldd "$program" | grep 'not found') && { echo "$program: $unresolved"; exit 1; }
done

source=$(realpath "$here/../..")
if grep -F "$source/" "$library"/*.so.*.* "$prefix"/bin/* "$prefix"/libexec/*; then
    echo "the files above name the folder that they were built from, $source"
    exit 1
fi

cp -r "$here/agent" "$work/agent"
if ! { cmake -S "$work/agent" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_CXX_COMPILER="${CXX:-c++}" &&
    cmake --build "$work/cmake"; } > "$work/cmake.log" 2>&1; then
    cat "$work/cmake.log"
    exit 1
fi
check "$work/cmake/loading-agent" LD_LIBRARY_PATH="$library"
check "$work/cmake/linked-agent"

export PKG_CONFIG_PATH=$library/pkgconfig
read -ra flags <<< "$(pkg-config --cflags libVpnWfOal)"
read -ra libraries <<< "$(pkg-config --libs libVpnWfOal)"
"${CXX:-c++}" -std=c++11 -DLINKED "${flags[@]}" "$work/agent/agent.cpp" -o "$work/pkg-config-agent" "${libraries[@]}" \
    -Wl,-rpath,"$library"
check "$work/pkg-config-agent"

# A later major version is refused.
mkdir "$work/later"
printf 'cmake_minimum_required(VERSION 3.16)\nproject(Later CXX)\nfind_package(VpnWfOal 99 REQUIRED)\n' > "$work/later/CMakeLists.txt"
if cmake -S "$work/later" -B "$work/later/build" -DCMAKE_PREFIX_PATH="$prefix" > /dev/null 2>&1; then
    echo "version 99 was found"
    exit 1
fi
