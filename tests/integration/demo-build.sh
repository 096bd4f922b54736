#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# demo-build.sh SOURCE: what demo.sh builds needs no package that is for tests only, and neither do its programs.
set -euo pipefail
cd "$1"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --preset demo -B "$work" --no-warn-unused-cli -DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON \
    -DCMAKE_DISABLE_FIND_PACKAGE_benchmark=ON >"$work/log" || { cat "$work/log"; exit 1; }
ninja -C "$work" -t commands demo >"$work/commands"
for program in samplegateway sampleclient vpnoalctl openvpn-hook isolate \
    vesk-connectionmanager vesk-certificatemanager; do
    grep -q -- "-o bin/$program " "$work/commands" || { echo "$program is not built"; exit 1; }
done
if grep -o -E -- '-l?(gtest|gmock|benchmark|nl-route)[^ ]*|[^ ]*/lib(gtest|gmock|benchmark)[^ ]*' "$work/commands"; then
    echo 'is for tests only'
    exit 1
fi

packaging/install-packages.sh --list build demo >"$work/packages"
for package in build-essential cmake openvpn python3 tcpdump; do
    grep -qx "$package" "$work/packages" || { echo "$package is not installed for the demo"; exit 1; }
done
for package in file lintian libgtest-dev libbenchmark-dev debootstrap fish clang; do
    if grep -qx "$package" "$work/packages"; then echo "$package is installed for the demo"; exit 1; fi
done
