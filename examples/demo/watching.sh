# shellcheck shell=bash
# SPDX-License-Identifier: Apache-2.0
#
# What the picture's lanes are drawn from, and only watched for a picture: the handset's links, and packets in the other
# network namespaces.

# shellcheck disable=SC2154  # shared with story.sh and its other parts
# A change of our own shows that the watcher listens.
links_are_watched() {
    ip link set lo alias watched
    [ -s "$logs/links" ]
}

# run_into FILE NAME COMMAND...: the file can be read at once.
run_into() {
    local file=$1 name=$2
    shift 2
    : >"$file"
    # shellcheck disable=SC2016  # the inner shell's
    run_beside "$name" sh -c 'file=$1; shift; exec "$@" >"$file" 2>&1' sh "$file" "$@"
}

watch_links() {
    [ -n "$plot" ] || return 0
    run_into "$logs/links" links ip -ts -o monitor link
    wait_until links_are_watched || failed 'the watcher of links' 'ip monitor sees a change' 'nothing'
    ip link set lo alias ''
}

watch_packets() {
    local place
    [ -n "$plot" ] || return 0
    for place in wifi cellular gateway office; do
        run_into "$logs/packets-$place" "packets-$place" nsenter "--net=/run/netns/$place" python3 "$here/packets.py" $place
    done
    for place in wifi cellular gateway office; do
        wait_until grep -q watching "$logs/packets-$place" ||
            failed 'the watcher of packets' 'it watches' "$(cat "$logs/packets-$place")"
    done
}
