#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# library-size.sh LIBRARY LIMIT: without debug information the library has at most LIMIT bytes.
set -euo pipefail
stripped=$(mktemp)
trap 'rm -f "$stripped"' EXIT
strip -o "$stripped" "$1"
size=$(stat -c %s "$stripped")
echo "${1##*/}: $size bytes, $2 at most"
if [ "$size" -gt "$2" ]; then
    echo "The library has grown. What takes the room: nm -S --size-sort -C $1"
    exit 1
fi
