#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# flakes.sh [N] [OPTION...]: runs all tests of the release build N times (20) while every core is busy with something
# else, and prints which have failed how often. The options go to ctest, as -L unit.
#
# Each run has its results in build/flakes/RUN.xml and its log in build/flakes/RUN.log. A run that is complete is not
# repeated for the same commit, so that an interrupted series goes on. Exits with 1 when a test has failed.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
case ${1:-} in
-h | --help)
    sed -n '4,8s/^# \{0,1\}//p' tests/flakes.sh
    exit 0
    ;;
esac
rounds=20
if [[ ${1:-} =~ ^[0-9]+$ ]]; then
    rounds=$1
    shift
fi

cmake --preset release
cmake --build --preset release
folder=build/flakes
mkdir -p "$folder"
series="$(tests/full.sh --commit) $*"
if [ "$(cat "$folder/series" 2>/dev/null)" != "$series" ]; then
    rm -f "$folder"/*.xml "$folder"/*.log "$folder"/*.counts
    echo "$series" >"$folder/series"
fi

busy=()
end_load() {
    [ ${#busy[@]} -eq 0 ] || kill "${busy[@]}" 2>/dev/null || true
}
trap end_load EXIT
trap 'exit 130' INT TERM
for ((core = 0; core < $(nproc); ++core)); do
    (while :; do :; done) &
    busy+=($!)
done

: >"$folder/failures"
ran=0
for ((round = 1; round <= rounds; ++round)); do
    if [ ! -s "$folder/$round.counts" ]; then
        ctest --test-dir build/release -j2 --no-tests=error --output-on-failure --output-junit "$PWD/$folder/$round.new" "$@" \
            >"$folder/$round.log" 2>&1 || true
        mv "$folder/$round.new" "$folder/$round.xml"
        rm -f "$folder/$round.notes"
        tests/devices/count-tests.py "$folder/$round.xml" "$round" "$folder/$round.notes" >"$folder/$round.counts"
    fi
    read -r run skipped failed <"$folder/$round.counts"
    ran=$((ran + run))
    echo "run $round of $rounds: $run tests, $skipped skipped, $failed failed"
    sed -n 's/^[0-9]*: failed: //p' "$folder/$round.notes" >>"$folder/failures"
done

failures=$(wc -l <"$folder/failures")
if [ "$failures" -gt 0 ]; then
    echo 'failed  of  test'
    sort "$folder/failures" | uniq -c | sort -rn | while read -r count name; do
        printf '%6d %3d  %s\n' "$count" "$rounds" "$name"
    done
fi
echo "$failures failures in $ran tests of $rounds runs"
if [ -n "${FIGURES:-}" ]; then
    ok=false
    [ "$failures" -gt 0 ] || ok=true
    printf '{"rows": [{"what": "all tests under load, %d times in a row", "figure": "%d failures in %d tests", "limit": "0", "ok": %s}]}\n' \
        "$rounds" "$failures" "$ran" $ok >"$FIGURES"
fi
[ "$failures" -eq 0 ]
