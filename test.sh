#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# test.sh [--preset NAME] [--filter REGEX] [--lint] [--devices] [--full ...]: installs what is missing, builds, and runs
# all tests. The last lines are ctest's own summary, and the exit code is ctest's.
#
#   --preset NAME    release (default), debug, asan-ubsan, asan-clang, tsan, clang or coverage
#   --filter REGEX   only tests whose names match
#   --lint           formatting, shell scripts, a clang build without warnings and clang-tidy instead of the tests
#   --devices        all tests in root file systems of other machines instead, through sudo (tests/devices.sh --help)
#   --full [PART...] what takes hours instead, or some parts of it, with one table at the end (tests/full.sh --help)
#
# Nothing of the machine is touched but the packages that are installed, the only step of the others that needs root
# (through sudo): tests run in private namespaces.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"

usage() {
    sed -n '4,14s/^# \{0,1\}//p' test.sh
}

die() {
    printf 'test.sh: %s\n' "$*" >&2
    exit 2
}

# Without a network the tests that need what is fetched are skipped; where skipping is forbidden, that is an error.
fetch() {
    "$@" || [ -z "${CI:-}" ] || die "could not fetch what the tests need"
}

preset=release filter='' lint=no devices=no full=no
while [ $# -gt 0 ]; do
    case $1 in
    --preset | --filter)
        [ $# -ge 2 ] || die "$1 needs a value"
        if [ "$1" = --preset ]; then preset=$2; else filter=$2; fi
        shift
        ;;
    --lint) lint=yes ;;
    --devices) devices=yes ;;
    --full)
        full=yes
        shift
        break
        ;;
    -h | --help) usage; exit 0 ;;
    *) die "unknown option '$1' (see --help)" ;;
    esac
    shift
done

if [ $lint = yes ]; then
    packaging/install-packages.sh build package test lint
    exec tests/lint.sh
fi
if [ $devices = yes ]; then
    packaging/install-packages.sh devices
    as_root=()
    [ "$(id -u)" -eq 0 ] || as_root=(sudo)
    exec "${as_root[@]}" tests/devices.sh
fi
if [ $full = yes ]; then
    packaging/install-packages.sh build package test lint full
    fetch tests/support/fetch-daemons.sh build/daemons
    fetch tests/support/fetch-vectors.sh build/vectors
    exec tests/full.sh "$@"
fi

case $preset in
clang | asan-clang) packaging/install-packages.sh build package test lint ;;
release | debug | asan-ubsan | tsan | coverage) packaging/install-packages.sh build package test ;;
*) die "no preset '$preset' runs tests (see --help)" ;;
esac
fetch tests/support/fetch-daemons.sh build/daemons
fetch tests/support/fetch-vectors.sh build/vectors
cmake --preset "$preset"
cmake --build --preset "$preset"

# Many tests wait for something.
tests=(ctest --test-dir "build/$preset" -j "$(($(nproc) + 1))" --output-on-failure --no-tests=error)
[ -z "$filter" ] || tests+=(-R "$filter")
"${tests[@]}" | tests/support/retell-failures.py
