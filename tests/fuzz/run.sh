#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# run.sh [--build|--built] [SECONDS] [STEM...]: builds the fuzz targets and runs each for that long (60), from its seeds,
# in private namespaces. --build runs none, and --built builds none. Exits with 1 when one finds something; what it found
# lies in build/fuzz/found/.
set -euo pipefail
cd "$(dirname "$0")/../.."
mode=${1:-}
if [[ $mode == --buil[dt] ]]; then shift; fi
seconds=${1:-60}
shift || true
stems=("$@")
[ ${#stems[@]} -gt 0 ] || mapfile -t stems < <(basename -s .cpp tests/fuzz/*Fuzz.cpp)
if [ "$mode" != --built ]; then
    cmake --preset fuzz >/dev/null
    ninja -C build/fuzz "${stems[@]}"
    [ "$mode" != --build ] || exit 0
fi
root=$PWD
mkdir -p build/fuzz/found
status=0
for stem in "${stems[@]}"; do
    mkdir -p "build/fuzz/corpus/$stem" "tests/fuzz/seeds/$stem"
    echo "== $stem"
    "build/fuzz/bin/$stem" -max_total_time="$seconds" -rss_limit_mb=4096 -print_final_stats=1 \
        -artifact_prefix="$root/build/fuzz/found/$stem-" \
        "$root/build/fuzz/corpus/$stem" "$root/tests/fuzz/seeds/$stem" >"build/fuzz/$stem.log" 2>&1 || status=1
    tail -n 12 "build/fuzz/$stem.log" | grep -E 'stat::number_of_executed_units|ERROR|SUMMARY|Done' || true
done
exit $status
