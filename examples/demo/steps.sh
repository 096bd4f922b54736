# shellcheck shell=bash
# SPDX-License-Identifier: Apache-2.0
#
# Telling the demo's story: chapters, and steps that are verified with an independent tool and printed as one line each.
# The first step that fails ends the demo.

steps_done=0
steps_skipped=0
if [ -t 1 ] && [ -z "${NO_COLOR:-}" ]; then
    bold=$'\e[1m' good=$'\e[32m' bad=$'\e[31m' faint=$'\e[2m' plain=$'\e[0m'
else
    bold='' good='' bad='' faint='' plain=''
fi

chapter() {
    printf '\n%s%s%s\n' "$bold" "$1" "$plain"
}

tell() {
    printf '  %s%s%s\n' "$faint" "$*" "$plain"
}

passed() {
    steps_done=$((steps_done + 1))
    printf '  %s✓%s %s\n' "$good" "$plain" "$1"
}

skipped() {
    steps_skipped=$((steps_skipped + 1))
    printf '  - %s: %sskipped, %s%s\n' "$1" "$faint" "$2" "$plain"
}

# failed STEP EXPECTED GOT
failed() {
    printf '  %s✗ %s%s\n      expected: %s\n      got:      %s\n' "$bad" "$1" "$plain" "$2" "${3:-nothing}"
    for log in "${logs_on_failure[@]}"; do
        [ -s "$log" ] && printf '      %s ends with:\n' "${log##*/}" && tail -n 8 "$log" | sed 's/^/        /'
    done
    exit 1
} >&2
logs_on_failure=()

# expect STEP REGEX COMMAND...: the output of the command has a line that matches; that line is shown.
expect() {
    local step=$1 regex=$2 output line
    shift 2
    output=$("$@" 2>&1) || true
    if line=$(grep -m 1 -E -- "$regex" <<<"$output"); then
        passed "$step $faint$(tr -s ' \t' ' ' <<<"$line" | sed 's/^ //; s/ $//')$plain"
    else
        failed "$step" "$* prints a line like /$regex/" "$(printf '%s' "$output" | sed '2,$s/^/                /')"
    fi
}

# expect_none STEP REGEX COMMAND...: the command succeeds and no line of its output matches.
expect_none() {
    local step=$1 regex=$2 output line
    shift 2
    output=$("$@" 2>&1) || failed "$step" "$* succeeds" "$output"
    line=$(grep -m 1 -E -- "$regex" <<<"$output") && failed "$step" "$* prints no line like /$regex/" "$line"
    passed "$step"
}

# expect_same STEP BEFORE AFTER: two texts are identical.
expect_same() {
    [ "$2" = "$3" ] || failed "$1" "no difference" "$(diff <(printf '%s\n' "$2") <(printf '%s\n' "$3"))"
    passed "$1"
}

# expect_status STEP WANTED COMMAND...: the exit status of the command.
expect_status() {
    local step=$1 wanted=$2 status=0 output
    shift 2
    output=$("$@" 2>&1) || status=$?
    [ "$status" -eq "$wanted" ] || failed "$step" "$* exits with $wanted" "$status: $output"
    passed "$step"
}
