#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# full.sh [--again] [PART...]: runs everything that is too long for each change, prints one table of what it measured, and
# writes docs/reliability.md. All parts of tests/full/parts.txt are run when none is named, but those with a "+". Parts of
# different lanes run side by side.
#
#   --again      also the parts that have a result for this commit
#   --summary    no part: only the table and the page, from the results there are
#   --list       the parts
#   --commit     the commit that results belong to: the last one that changed more than them
#
# Each result stays in docs/reliability/PART.json, and what the part printed in build/full/PART.log. A part that has a
# result for this commit is not run again, so that an interrupted run goes on where it stopped, in another clone too when
# the results are committed. `./test.sh --full` installs what is needed first. Exits with 1 when one of the parts has
# failed or has no result.
#
# A part is a command that runs by itself too. It writes what it measured to the file that FIGURES names:
#   {"rows": [{"what": "mutants killed", "figure": "412 of 430, 95.8 %", "limit": "95 %", "ok": true}], "notes": ["..."]}
# Notes are sentences for the page. The command exits with 0 when each row is ok.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
folder=build/full

usage() {
    sed -n '4,20s/^# \{0,1\}//p' tests/full.sh
}

die() {
    printf 'full.sh: %s\n' "$*" >&2
    exit 2
}

# The last commit that changed more than what this writes, and what has been changed since.
state_of_tree() {
    local paths=(-- . ':!docs/reliability.md' ':!docs/reliability') commit changes
    commit=$(git log -1 --format=%h "${paths[@]}") || die 'results belong to a commit, and this is no clone'
    changes=$(git status --porcelain "${paths[@]}"; git diff HEAD "${paths[@]}")
    [ -z "$changes" ] || commit+=+$(sha256sum <<<"$changes" | cut -c 1-7)
    echo "$commit"
}

names=() default=()
declare -A command lane
while IFS='|' read -r name lane_of_it _ line; do
    [[ $name != '' && $name != \#* ]] || continue
    read -r name <<<"$name"
    [[ $name == +* ]] || default+=("$name")
    name=${name#+}
    read -r "lane[$name]" <<<"$lane_of_it"
    read -r "command[$name]" <<<"$line"
    names+=("$name")
done <tests/full/parts.txt

again=no summary=no wanted=()
while [ $# -gt 0 ]; do
    case $1 in
    --again) again=yes ;;
    --summary) summary=yes ;;
    --commit) state_of_tree; exit 0 ;;
    --list) grep -v '^#' tests/full/parts.txt; exit 0 ;;
    -h | --help) usage; exit 0 ;;
    -*) die "unknown option '$1' (see --help)" ;;
    *)
        [ -n "${command[$1]:-}" ] || die "no part is called '$1'; there are: ${names[*]}"
        wanted+=("$1")
        ;;
    esac
    shift
done
[ ${#wanted[@]} -gt 0 ] || wanted=("${default[@]}")

run_part() {
    local name=$1 began status=0
    rm -f "$folder/$name.figures"
    echo "$name: the log is $folder/$name.log"
    began=$(date +%s)
    # 9 is the lock, which no daemon that a test leaves behind is to hold.
    FIGURES=$PWD/$folder/$name.figures bash -c "${command[$name]}" >"$folder/$name.log" 2>&1 </dev/null 9>&- || status=$?
    tests/full/results.py record "$name" "$commit" "$began" $status
}

run_lane() {
    local name
    for name in "${wanted[@]}"; do
        [ "${lane[$name]}" = "$1" ] || continue
        if [ $again = yes ] || ! tests/full/results.py has "$name" "$commit"; then run_part "$name"; fi
    done
}

# Each lane is a process group, so that it ends with all that it has started.
run_lanes() {
    local name
    local -A lanes=()
    trap 'kill -- "${lanes[@]/#/-}" 2>/dev/null; exit 130' INT TERM
    set -m
    for name in "${wanted[@]}"; do
        [ -z "${lanes[${lane[$name]}]:-}" ] || continue
        run_lane "${lane[$name]}" &
        lanes[${lane[$name]}]=$!
    done
    set +m
    wait
}

mkdir -p "$folder"
exec 9>"$folder/lock"
flock -n 9 || die 'another run is going on here'
commit=$(state_of_tree)
[ $summary = yes ] || run_lanes
tests/full/results.py report "$commit" "${wanted[@]}"
