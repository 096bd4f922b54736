#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# test.sh [--preset NAME] [--filter REGEX] [--lint] [--devices]: installs what is missing, builds, and runs all tests: first
# the unit tests with 32 bits, in a root file system of their own, then those of the preset. The last lines are ctest's own
# summary. The exit code is ctest's, or 1 when only the tests with 32 bits have failed.
#
#   --preset NAME    release (default), debug, asan-ubsan, tsan, clang or coverage; but for release nothing with 32 bits
#   --filter REGEX   only tests whose names match, and nothing with 32 bits
#   --lint           formatting, shell scripts, a clang build without warnings and clang-tidy instead of the tests
#   --devices        all tests in root file systems of other machines instead, through sudo (tests/devices.sh --help)
#
# Nothing of the machine is touched but the packages that are installed: tests run in private namespaces. Installing
# packages and the tests with 32 bits need root (through sudo); without it the latter are skipped.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"

usage() {
    sed -n '4,15s/^# \{0,1\}//p' test.sh
}

die() {
    printf 'test.sh: %s\n' "$*" >&2
    exit 2
}

# Without a network the tests that need what is fetched are skipped; where skipping is forbidden, that is an error.
fetch() {
    "$@" || [ -z "${CI:-}" ] || die "could not fetch what the tests need"
}

preset=release filter='' lint=no devices=no
while [ $# -gt 0 ]; do
    case $1 in
    --preset | --filter)
        [ $# -ge 2 ] || die "$1 needs a value"
        if [ "$1" = --preset ]; then preset=$2; else filter=$2; fi
        shift
        ;;
    --lint) lint=yes ;;
    --devices) devices=yes ;;
    -h | --help) usage; exit 0 ;;
    *) die "unknown option '$1' (see --help)" ;;
    esac
    shift
done

if [ $lint = yes ]; then
    packaging/install-packages.sh build package test lint
    exec tests/lint.sh
fi
as_root=()
[ "$(id -u)" -eq 0 ] || as_root=(sudo --preserve-env=CI)
if [ $devices = yes ]; then
    packaging/install-packages.sh devices
    exec "${as_root[@]}" tests/devices.sh
fi

# Unit tests with 32 bits. Where skipping is forbidden, that is a failure.
test_32_bits() {
    local status=0
    if [ "$(id -u)" -ne 0 ] && ! sudo -n true 2>/dev/null; then
        echo 'Tests with 32 bits are skipped: they take root, and sudo asks for a password.'
        [ -z "${CI:-}" ]
        return
    fi
    "${as_root[@]}" tests/devices.sh i386-unit || status=$?
    [ $status -ne 77 ] || { echo 'Tests with 32 bits are skipped, see above.'; [ -z "${CI:-}" ]; return; }
    return $status
}

case $preset in
clang) packaging/install-packages.sh build package test lint ;;
release | debug | asan-ubsan | tsan | coverage) packaging/install-packages.sh build package test ;;
*) die "no preset '$preset' runs tests (see --help)" ;;
esac
fetch tests/support/fetch-daemons.sh build/daemons
fetch tests/support/fetch-vectors.sh build/vectors
cmake --preset "$preset"
cmake --build --preset "$preset"

with_32_bits=0
if [ "$preset" = release ] && [ -z "$filter" ]; then
    test_32_bits || with_32_bits=1
fi
tests=(ctest --test-dir "build/$preset" -j2 --output-on-failure --no-tests=error)
[ -z "$filter" ] || tests+=(-R "$filter")
"${tests[@]}" || exit
[ $with_32_bits -eq 0 ] || {
    echo 'test.sh: the tests with 32 bits have failed, see the table above' >&2
    exit 1
}
