# shellcheck shell=bash
# SPDX-License-Identifier: Apache-2.0
#
# A ping every 10 ms through the tunnel. The longest time without an answer is the outage. $logs/outages.tsv keeps
# begin and end (microseconds) of each for the picture.

# shellcheck disable=SC2154  # shared with story.sh and its other parts
start_traffic() {
    run_into "$logs/answers" traffic ping -n -D -i 0.01 10.20.0.80
    wait_until answered_since "$(now)" || failed 'traffic through the tunnel' 'answers' "$(tail -n 3 "$logs/answers")"
}

stop_traffic() { stop_beside traffic; }

# answered_since MICROSECONDS
answered_since() {
    awk -v since="$1" -F '[][]' '/ bytes from .* time=/ && $2 * 1000000 > since { found = 1 } END { exit !found }' "$logs/answers"
}

# longest_silence_since MICROSECONDS: the longest time between two answers from then on, and what got none.
longest_silence_since() {
    local begin end lost
    read -r begin end lost < <(awk -v since="$1" -F '[][]' '/ bytes from .* time=/ {
            time = $2 * 1000000
            number = $3
            sub(/.*icmp_seq=/, "", number)
            if (last && time >= since) {
                lost += number - last_number - 1
                if (time - last > end - begin) { begin = last; end = time }
            }
            last = time
            last_number = number + 0
        }
        END { printf "%.0f %.0f %d\n", begin, end, lost }' "$logs/answers")
    printf '%s\t%s\n' "$begin" "$end" >>"$logs/outages.tsv"
    echo "$(((end - begin) / 1000)) ms without an answer, $lost pings lost"
}

# outage WHEN COMMAND...: that of a change at WHEN (microseconds), once the command is true and a later ping is answered.
outage() {
    local since=$1 moved
    shift
    wait_until "$@" || { echo "not yet: $*"; return; }
    moved=$(now)
    wait_until answered_since "$moved" || { echo 'no answer'; return; }
    longest_silence_since "$since"
}
