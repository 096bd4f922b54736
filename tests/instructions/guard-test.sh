#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# guard-test.sh PROGRAM: guard.py sees a slowdown and names it, and compares only what can be compared.
set -euo pipefail
program=$1 guard=$(dirname "$(realpath "$0")")/guard.py
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
slow='deliver a network status' other='parse 1,000 routes'
failed=0

# record FILE ARGUMENT...: counts two operations.
record() {
    local file=$1 status=0
    shift
    "$guard" --write --only "$slow" --only "$other" "$@" "$program" "$file" > "$work/output" 2>&1 || status=$?
    [ $status = 0 ] || { cat "$work/output"; exit $status; }
}

# expect NAME EXIT_CODE PATTERN COUNTED FIGURES: the guard ends with the code and prints a line that the pattern matches.
expect() {
    local status=0
    "$guard" --counted "$4" "$5" > "$work/output" 2>&1 || status=$?
    if [ $status != "$2" ] || ! grep -qE -- "$3" "$work/output"; then
        echo "$1: expected exit code $2 and a line with '$3', got $status and:"
        cat "$work/output"
        failed=1
    fi
}

# figures SED_SCRIPT: those that were recorded, changed.
figures() {
    sed -E "$1" "$work/normal" > "$work/figures"
    echo "$work/figures"
}

# less PERCENT: the figure of one operation, so much lower.
less() {
    local recorded
    recorded=$(sed -n "s/^$other: //p" "$work/normal")
    figures "s/^($other): .*/\1: $((recorded * (100 - $1) / 100))/"
}

record "$work/normal"
record "$work/slow" --twice "$slow"

expect "counted again" 0 "^$other .* \+0\.0%$" "$work/normal" "$work/normal"
expect "a slowdown" 1 "^$slow .* \+(9[5-9]|10[0-5])\.[0-9]%  SLOWER$" "$work/slow" "$work/normal"
expect "a slowdown: how to accept it" 1 '^    tests/instructions/guard.py --write ' "$work/slow" "$work/normal"
expect "a slowdown of another operation" 1 "^$other .* [+-]0\.[0-9]%$" "$work/slow" "$work/normal"
expect "12 % more" 1 "^$other .* \+12\.4%  SLOWER$" "$work/normal" "$(less 11)"
expect "9 % more" 0 "^$other .* \+8\.7%$" "$work/normal" "$(less 8)"
expect "12 % less" 0 "^$other .* -12\.3%  faster: record it, to keep it$" "$work/normal" "$(less -14)"
expect "an operation that is not recorded" 1 "^$other +NOT RECORDED$" "$work/normal" "$(figures "/^$other/d")"
expect "an operation that is gone" 1 "^another +NOT COUNTED$" "$work/normal" "$(figures "s/^$other:/another:/")"
older=$(figures 's/^(package libc6:.*)$/\1+older/')
expect "another library" 77 '^recorded: package libc6:.*\+older$' "$work/normal" "$older"
expect "another library: the reason" 77 '^skipped: figures was recorded with another compiler' "$work/normal" "$older"
exit $failed
