#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# abi.sh [--write] [--arch ARCHITECTURE] agent|platform [HEADERS]: what a program built against the headers relies on
# (slots, records, enumerators, signatures, constants) is what tests/api/abi/ describes, for 32 and for 64 bits. --write
# makes the description anew. The architecture is this machine's, or another one whose cross compiler is installed.
set -euo pipefail
here=$(dirname "$(realpath "$0")") write=0 architecture=
root=$(realpath "$here/../..")

skip() {
    echo "skipped: $1"
    exit 77
}

die() {
    echo "abi.sh: $1" >&2
    exit 2
}

# By Debian's name for the architecture: how its compilers are called, before "-gcc" and "-g++".
declare -A triplets=([amd64]=x86_64-linux-gnu [arm64]=aarch64-linux-gnu [armhf]=arm-linux-gnueabihf
    [i386]=i686-linux-gnu [s390x]=s390x-linux-gnu)

this_architecture() {
    case $(gcc -dumpmachine) in
        x86_64-*) echo amd64 ;;
        aarch64-*) echo arm64 ;;
        arm*hf) echo armhf ;;
        i?86-*) echo i386 ;;
        s390x-*) echo s390x ;;
        *) gcc -dumpmachine ;;
    esac
}

while [ $# -gt 0 ]; do
    case $1 in
        --write) write=1 ;;
        --arch)
            [ $# -ge 2 ] || die '--arch needs a value'
            architecture=$2
            shift
            ;;
        *) break ;;
    esac
    shift
done
[ $# -ge 1 ] || die 'which interfaces: agent or platform?'
api=$1
for tool in python3 readelf gcc g++; do
    command -v "$tool" > /dev/null || skip "no $tool here"
done
prefix='' this=$(this_architecture)
: "${architecture:=$this}"
if [ "$architecture" != "$this" ]; then
    [ -n "${triplets[$architecture]:-}" ] || die "no architecture is called '$architecture'"
    prefix=${triplets[$architecture]}-
fi
case $api in
    agent)
        headers=include/agent/kest
        mapfile -t functions < <(awk '$2 == "FUNC" { print $1 }' "$here/names/VpnWfOal.txt")
        language=c++ compiler=${prefix}g++
        ;;
    platform) headers=platform/include functions=() language=c compiler=${prefix}gcc ;;
    *) die "'$api' is neither agent nor platform" ;;
esac
command -v "$compiler" > /dev/null || skip "no $compiler here"

bits=$((8 * $("$compiler" -dM -E -x c /dev/null | awk '$2 == "__SIZEOF_POINTER__" { print $3 }')))
description=abi/$api-$bits.txt
now=$(python3 "$here/abi/describe.py" "${2:-$root/$headers}" "$language" "$compiler" "${functions[@]}")
if [ $write = 1 ]; then
    printf '%s\n' "$now" > "$here/$description"
elif ! diff -U1 -F '^[a-z]' --label "tests/api/$description" --label "$headers" "$here/$description" - <<< "$now"; then
    cat <<END

What others were built against has changed (here as $architecture lays it out): lines with "-" were promised, lines with "+" are what $headers says now.
Programs that exist already would call the wrong slot or read the wrong byte. If that is meant (a new major version, or
a change that no built program can notice): tests/api/abi.sh --write --arch $architecture $api, and a line in
CHANGELOG.md.
END
    exit 1
fi
