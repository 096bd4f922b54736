#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# run.sh [BUILD-FOLDER] [STEM...]: runs the benchmarks and prints their tables. Exits with 1 when a ratio is over its
# limit. Each runs in private namespaces of its own.
set -uo pipefail
cd "$(dirname "$0")/.." || exit
build=${1:-build/release}
shift || true
status=0
for program in "$build"/bin/*Bench; do
    stem=$(basename "$program")
    [ $# -eq 0 ] || [[ " $* " == *" $stem "* ]] || continue
    "$build/bin/isolate" "$PWD/$program" || status=1
done
exit $status
