#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# exported-names.sh LIBRARY LIST [without-sizes]: soname and dynamic symbols of the library are exactly those of the
# list: name (with its version, where it has one), type, binding, and an object's size, which a program that links
# against it copies. Sizes differ between machines, and sanitizers add to them.
set -euo pipefail
export LC_ALL=C
columns='1-'
[ "${3:-}" != without-sizes ] || columns='1-3'

present() {
    readelf --dynamic --wide "$1" | sed -n 's/.*(SONAME).*\[\(.*\)\]/soname \1/p'
    readelf --dyn-syms --wide "$1" |
        awk '$1 ~ /^[0-9]+:$/ && $5 != "LOCAL" && $7 != "UND" && $8 != "" { print $8, $4, $5, $4 == "OBJECT" ? $3 : "" }'
}
tidy() {
    sed 's/ *$//' | cut -d ' ' -f "$columns" | sort
}
if ! diff -U1 --label "tests/api/names/${2##*/}" --label "${1##*/}" <(tidy < "$2") <(present "$1" | tidy); then
    echo "The library exports something else than what others rely on. If that is meant: its version script, this list,"
    echo "and a line in CHANGELOG.md."
    exit 1
fi
