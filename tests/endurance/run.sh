#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# run.sh BUILD-FOLDER [NAME...]: repeats the endurance run of the host platform, all parts or those named, and prints one
# table. Each part has private namespaces of its own. It takes some minutes, so ctest does not run it. Exits with 1 when
# something failed; the failures are on standard error.
#
#   SEED=NUMBER      the random numbers (1)
#   PERCENT=NUMBER   how much of the full counts (100)
set -uo pipefail

usage() {
    sed -n '4,9s/^# \{0,1\}//p' "${BASH_SOURCE[0]}" >&2
    exit 2
}

if [ $# -lt 1 ] || [ ! -x "$1/bin/netconfigEndurance" ]; then usage; fi
build=$(cd "$1" && pwd)
shift
program=$build/bin/netconfigEndurance
seed=${SEED:-1} percent=${PERCENT:-100}
mapfile -t names < <("$program" --names)
for name in "$@"; do
    [[ " ${names[*]} " == *" $name "* ]] || { printf 'run.sh: no part "%s", but: %s\n' "$name" "${names[*]}" >&2; exit 2; }
done
[ $# -eq 0 ] || names=("$@")

# What a thread keeps for its next allocation would count as memory in use.
tunables=GLIBC_TUNABLES=glibc.malloc.tcache_count=0
status=0
rows=()
for name in "${names[@]}"; do
    printf 'running %s\n' "$name" >&2
    start=$SECONDS
    row=$("$build/bin/isolate" env "$tunables" "$program" "$name" "$seed" "$percent") || status=1
    rows+=("$(printf '%s\t%s' $((SECONDS - start)) "${row:-$name$'\t-\t1\tended without a result'}")")
done

printf 'seed %s, %s %% of the full counts\n' "$seed" "$percent"
layout='%-17s %8s %8s %8s  %s\n'
# shellcheck disable=SC2059
printf "$layout" part rounds failures seconds checked
for row in "${rows[@]}"; do
    IFS=$'\t' read -r seconds name rounds failures checked <<< "$row"
    # shellcheck disable=SC2059
    printf "$layout" "$name" "$rounds" "$failures" "$seconds" "$checked"
done
exit $status
