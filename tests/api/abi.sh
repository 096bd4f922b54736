#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# abi.sh [--write] agent|platform [HEADERS]: what a program built against the headers relies on (slots, records,
# enumerators, signatures, constants) is what tests/api/abi/ describes. --write makes the description anew.
set -euo pipefail
write=0
[ "$1" != --write ] || { write=1; shift; }
here=$(dirname "$(realpath "$0")") api=$1
root=$(realpath "$here/../..")
case $api in
    agent)
        headers=include/agent/kest
        mapfile -t functions < <(awk '$2 == "FUNC" { print $1 }' "$here/names/VpnWfOal.txt")
        language=c++
        ;;
    platform) headers=platform/include functions=() language=c ;;
    *) echo "abi.sh: '$api' is neither agent nor platform" >&2; exit 2 ;;
esac
[ "$(getconf LONG_BIT)" = 64 ] || { echo "skipped: the description is of machines with 64 bits"; exit 77; }
for tool in python3 readelf gcc g++; do
    command -v "$tool" > /dev/null || { echo "skipped: no $tool here"; exit 77; }
done

description=$here/abi/$api.txt
now=$(python3 "$here/abi/describe.py" "${2:-$root/$headers}" "$language" "${functions[@]}")
if [ $write = 1 ]; then
    printf '%s\n' "$now" > "$description"
elif ! diff -U1 -F '^[a-z]' --label "tests/api/abi/$api.txt" --label "$headers" "$description" - <<< "$now"; then
    cat <<END

What others were built against has changed: lines with "-" were promised, lines with "+" are what $headers says now.
Programs that exist already would call the wrong slot or read the wrong byte. If that is meant (a new major version, or
a change that no built program can notice): tests/api/abi.sh --write $api, and a line in CHANGELOG.md.
END
    exit 1
fi
