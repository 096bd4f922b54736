# shellcheck shell=bash
# SPDX-License-Identifier: Apache-2.0
#
# Telling the demo's story: chapters, and steps that are verified with an independent tool. Each step is one line: what,
# how long since the step before, how it was checked and what the check said. The first step that fails ends the demo.
# $logs/steps.tsv keeps begin, end (microseconds), result, chapter and step for the time line.

# shellcheck disable=SC2154,SC2034  # shared with story.sh and its other parts
steps_verified=0
steps_skipped=0
failure_told=false
if [ -t 1 ] && [ -z "${NO_COLOR:-}" ] && ! $as_json; then
    bold=$'\e[1m' good=$'\e[32m' bad=$'\e[31m' faint=$'\e[2m' plain=$'\e[0m'
else
    bold='' good='' bad='' faint='' plain=''
fi

# What a check that is a function of ours is called.
declare -A check_names=(
    [arrivals_at]='nft counter behind the gateway'
    [installed_pair_fits]='openssl pkey, stat'
    [signature_by_openssl]='openssl pkeyutl -verify'
    [handshake_without_certificate]='openssl s_client'
    [status_of_networks]='busctl call getStatus'
    [outer_connection]='ss'
    [installed_filters]='nft list ruleset'
    [leaks_seen]="$($in_user_namespace && echo 'nft counters' || echo tcpdump) on both access networks"
    [closed_before_sleep]='tcpdump, stat /sys/power/state'
    [configuration_changes]='ip monitor'
    [outage]='ping every 10 ms'
    [ping6]='ping -6'
    [tcp6]='connect() to port 80'
    [ipv6_beside]="$($in_user_namespace && echo 'nft counters' || echo tcpdump) on both access networks"
    [gateway_log]="the gateway's log"
    [agent_log]="the agent's events"
)

# In microseconds, whatever the locale writes for a point.
now() { printf '%s' "${EPOCHREALTIME//[.,]/}"; }
story_began=$(now)
step_began=$story_began

milliseconds() { printf '%d.%d' $(($1 / 1000)) $(($1 % 1000 / 100)); }

# The text as the inside of a JSON string.
json_text() {
    local text=${1//\\/\\\\}
    text=${text//\"/\\\"}
    text=${text//$'\t'/ }
    text=${text//$'\n'/\\n}
    printf '%s' "${text//[[:cntrl:]]/}"
}

# json_line KEY VALUE...: an object of texts; a value that begins with '=' is taken as it is.
json_line() {
    local line='' key value
    while [ $# -gt 1 ]; do
        key=$1 value=$2
        shift 2
        case $value in
        =*) value=${value#=} ;;
        *) value="\"$(json_text "$value")\"" ;;
        esac
        line+="${line:+,}\"$key\":$value"
    done
    printf '{%s}\n' "$line"
}

# prepared WHAT: what was done for the steps that follow. It has a time of its own, which is not the next step's.
prepared() {
    $as_json || printf '    %s%s: %s ms%s\n' "$faint" "$1" "$(milliseconds $(($(now) - step_began)))" "$plain"
    step_began=$(now)
}

chapter() {
    chapter=$1
    $as_json || printf '\n%s%s%s\n' "$bold" "$1" "$plain"
}

# note RESULT STEP: enters it in the record; $took is how long it was.
note() {
    local ended
    ended=$(now)
    took=$(milliseconds $((ended - step_began)))
    printf '%s\t%s\t%s\t%s\t%s\n' "$step_began" "$ended" "$1" "$chapter" "$2" >>"$logs/steps.tsv"
    step_began=$ended
}

pause() {
    $by_step || return 0
    $as_json || printf '    %sEnter goes on.%s ' "$faint" "$plain"
    read -r || true
    step_began=$(now)
}

# passed STEP CHECK EVIDENCE
passed() {
    local took evidence
    note verified "$1"
    steps_verified=$((steps_verified + 1))
    evidence=$(tr -s ' \t' ' ' <<<"$3" | sed 's/^ //; s/ $//')
    if $as_json; then
        json_line step "=$((steps_verified + steps_skipped))" chapter "$chapter" what "$1" result verified \
            milliseconds "=$took" check "$2" evidence "$evidence"
    else
        printf '  %s✓%s %-58s %9s ms  %s%s: %s%s\n' "$good" "$plain" "$1" "$took" "$faint" "$2" "${evidence:0:100}" "$plain"
    fi
    pause
}

# skipped STEP REASON
skipped() {
    local took
    note skipped "$1"
    steps_skipped=$((steps_skipped + 1))
    if $as_json; then
        json_line step "=$((steps_verified + steps_skipped))" chapter "$chapter" what "$1" result skipped reason "$2"
    else
        printf '  - %-58s %sskipped: %s%s\n' "$1" "$faint" "$2" "$plain"
    fi
}

# failed STEP EXPECTED GOT
failed() {
    local took log name
    trap - ERR
    failure_told=true
    note failed "$1"
    $as_json && json_line step "=$((steps_verified + steps_skipped + 1))" chapter "$chapter" what "$1" result failed \
        expected "$2" got "${3:-nothing}"
    {
        printf '  %s✗ %s%s\n      expected: %s\n      got:      %s\n' "$bad" "$1" "$plain" "$2" "${3:-nothing}"
        for name in "${!line_descriptors[@]}"; do read_rest_of "$name"; done
        for log in "$logs"/*.log; do
            [ -s "$log" ] && printf '      %s ends with:\n' "${log##*/}" && tail -n 8 "$log" | sed 's/^/        /'
        done
    } >&2
    exit 1
}

# What a check is called: its tool and first arguments, and the namespace that it looks at.
name_of_check() {
    local where='' tool
    [[ $1 != in_* ]] || { where=" in ${1#in_}" && shift; }
    tool=${1##*/}
    shift
    local text=${check_names[$tool]:-"$tool${*:+ ${*##*/}}"}
    printf '%s%s' "${text:0:44}" "$where"
}

# A tool that hangs is a failed check. What the checks that are functions wait for has an end already.
run_check() {
    if declare -F "$1" >/dev/null; then "$@"; else timeout 60 "$@"; fi
}

# expect STEP REGEX COMMAND...: the output of the command has a line that matches, whatever its exit status.
expect() {
    local step=$1 regex=$2 output line
    shift 2
    output=$(run_check "$@" 2>&1) || true
    line=$(grep -m 1 -E -- "$regex" <<<"$output") ||
        failed "$step" "$* prints a line like /$regex/" "$(sed '2,$s/^/                /' <<<"$output")"
    passed "$step" "$(name_of_check "$@")" "$line"
}

# expect_status STEP WANTED REGEX COMMAND...: the exit status of the command, and a line of its output. Where
# $status_means is set, that is shown instead of the number.
expect_status() {
    local step=$1 wanted=$2 regex=$3 status=0 output line
    shift 3
    output=$(run_check "$@" 2>&1 </dev/null) || status=$?
    [ "$status" -eq "$wanted" ] || failed "$step" "$* exits with $wanted" "$status: $output"
    line=$(grep -m 1 -E -- "$regex" <<<"$output") || failed "$step" "$* prints a line like /$regex/" "$output"
    passed "$step" "${status_means:-exit status $wanted}" "$line"
}
