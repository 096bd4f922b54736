#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# make-sysroot.sh ARCHITECTURE FOLDER [PACKAGE...]: headers and libraries of Debian for another architecture (arm64,
# armhf, i386, ...), unpacked below FOLDER for a cross compiler to take with --sysroot. Without PACKAGE what the plug-in
# and vpnoalconform need: libc, GLib, json-c and OpenSSL; CLI11, fmt and RapidJSON. With "packages" in the place of
# PACKAGE what the Debian packages need.
#
# Nothing is installed and the machine's lists of packages stay as they are; it takes no root. A folder that is complete
# is left alone.
set -euo pipefail
source=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

[ $# -ge 2 ] || { sed -n '4,11s/^# \{0,1\}//p' "$0"; exit 2; }
architecture=$1 folder=$2
shift 2
packages=("$@")
[ $# -gt 0 ] || packages=(libc6-dev libglib2.0-dev libjson-c-dev libssl-dev libcli11-dev libfmt-dev rapidjson-dev)
if [ "${1:-}" = packages ]; then
    mapfile -t packages < <("$source/packaging/install-packages.sh" --list build package | grep -E -- '-dev$')
    packages+=(libc6-dev)
fi
mkdir -p "$folder"
folder=$(cd "$folder" && pwd)
complete="$folder/.complete"
[ "$(cat "$complete" 2>/dev/null)" != "${packages[*]}" ] || exit 0
apt=$folder/.apt
mkdir -p "$apt/lists/partial" "$apt/archives/partial"
: >"$apt/status"
options=(-q -o APT::Architecture="$architecture" -o APT::Architectures="$architecture" -o Dir::State::Lists="$apt/lists" -o Dir::State::status="$apt/status" -o Dir::Cache="$apt"
    -o Dir::Cache::archives="$apt/archives" -o Debug::NoLocking=true)
# A list that cannot be had (of a third party, or of a mirror in the middle of an update) may not be needed.
apt-get "${options[@]}" update >"$apt/log" 2>&1 || grep '^E:' "$apt/log" >&2 || true
# The order does not matter to unpacking, and nothing of it runs.
apt-get "${options[@]}" install --no-install-recommends --download-only -y "${packages[@]}" >>"$apt/log" 2>&1 ||
    { tail -n 5 "$apt/log" >&2; exit 1; }
for package in "$apt"/archives/*.deb; do
    dpkg-deb --extract "$package" "$folder"
done
# A link to an absolute path would lead out of the folder.
find "$folder" -type l -lname '/*' -print0 | while IFS= read -r -d '' link; do
    ln -sfn "$(realpath -m --relative-to="$(dirname "$link")" "$folder$(readlink "$link")")" "$link"
done
rm -rf "$apt"
echo "${packages[*]}" >"$complete"
