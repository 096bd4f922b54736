#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# headers-alone.sh FOLDER COMPILER STANDARD: each header of the folder compiles as a file of its own, without a warning,
# and includes nothing but the standard library and its neighbours.
set -euo pipefail
folder=$1 compiler=$2 standard=$3
command -v "$compiler" >/dev/null || { echo "skipped: no $compiler here"; exit 77; }
allowed=' cstdint stdbool.h stdint.h '
failed=0
language=c++
case $standard in c11) language=c ;; esac
warnings=(-Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror)
[ $language = c ] || warnings+=(-Wnon-virtual-dtor -Woverloaded-virtual)
count=0
for header in "$folder"/*.h; do
    count=$((count + 1))
    "$compiler" -x "$language" -std="$standard" -fsyntax-only "${warnings[@]}" -include "$header" /dev/null || failed=1
    while read -r name; do
        [[ $allowed == *" $name "* ]] || { echo "$header includes <$name>"; failed=1; }
    done < <(sed -n 's/^ *# *include *<\([^>]*\)>.*/\1/p' "$header")
    while read -r name; do
        [ -f "$folder/$name" ] || { echo "$header includes \"$name\", which is no neighbour"; failed=1; }
    done < <(sed -n 's/^ *# *include *"\([^"]*\)".*/\1/p' "$header")
done
[ $count -gt 0 ] || { echo "no header in $folder"; exit 1; }
exit $failed
