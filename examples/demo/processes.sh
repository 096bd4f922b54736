# shellcheck shell=bash
# SPDX-License-Identifier: Apache-2.0
#
# Programs that run beside the story, and waiting for a line of their output: nothing here waits for a fixed time, and
# every wait has an end. A program's lines are kept in $logs/NAME.log as they are read.

# shellcheck disable=SC2154,SC2034  # shared with story.sh and its other parts
declare -A process_ids=() line_descriptors=()

# run_beside NAME COMMAND...
run_beside() {
    local name=$1 descriptor
    shift
    mkfifo "$logs/$name.pipe"
    : >"$logs/$name.log"
    "$@" >"$logs/$name.pipe" 2>&1 &
    process_ids[$name]=$!
    exec {descriptor}<"$logs/$name.pipe"
    line_descriptors[$name]=$descriptor
    rm "$logs/$name.pipe"
}

# wait_for_line NAME REGEX [SECONDS]: the line is in $matched_line. False when the program ended without it or time is up.
wait_for_line() {
    local name=$1 regex=$2 deadline=$((EPOCHSECONDS + ${3:-20}))
    while [ $EPOCHSECONDS -le $deadline ] &&
        IFS= read -r -t $((deadline - EPOCHSECONDS + 1)) -u "${line_descriptors[$name]}" matched_line; do
        printf '%s\n' "$matched_line" >>"$logs/$name.log"
        [[ $matched_line =~ $regex ]] && return
    done
    return 1
}

# start_until NAME REGEX COMMAND...: starts a program and returns when a line of it matches.
start_until() {
    local name=$1 regex=$2
    shift 2
    run_beside "$name" "$@"
    wait_for_line "$name" "$regex" || failed "start of ${1##*/}" "a line like /$regex/" "$(tail -n 5 "$logs/$name.log")"
}

# Takes what has been written since, without waiting.
read_rest_of() {
    local line
    [ -n "${line_descriptors[$1]:-}" ] || return 0
    while IFS= read -r -t 0.01 -u "${line_descriptors[$1]}" line; do printf '%s\n' "$line" >>"$logs/$1.log"; done
}

# stop_beside NAME [SIGNAL]: ends it, and leaves its exit status in $ended_with.
stop_beside() {
    local descriptor=${line_descriptors[$1]}
    kill "-${2:-TERM}" "${process_ids[$1]}" 2>/dev/null || true
    wait_beside "$1"
    exec {descriptor}<&-
}

# Waits for the end of a program that is to end; its last lines are kept. What does not end is killed.
wait_beside() {
    local line status=0
    while IFS= read -r -t 20 -u "${line_descriptors[$1]}" line || { status=$? && false; }; do
        printf '%s\n' "$line" >>"$logs/$1.log"
    done
    [ $status -le 128 ] || kill -KILL "${process_ids[$1]}" 2>/dev/null || true
    ended_with=0
    { wait "${process_ids[$1]}" || ended_with=$?; } 2>/dev/null
    unset "process_ids[$1]" "line_descriptors[$1]"
}

# wait_until COMMAND...: for what can only be asked for. Ten seconds at most.
wait_until() {
    local deadline=$((EPOCHSECONDS + 10))
    until "$@"; do
        [ $EPOCHSECONDS -lt $deadline ] || return 1
        sleep 0.02
    done
}
