#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# lint.sh [FILE...]: formatting, shell scripts, a clang build in which warnings are errors, and clang-tidy over the C++
# sources (all of them, or the named ones). `./test.sh --lint` installs what it needs first.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

files_named() {
    find . -path ./build -prune -o -path ./.git -prune -o -type f -name "$1" -printf '%P\n' | sort
}

sources=("$@")
[ $# -gt 0 ] || mapfile -t sources < <(files_named '*.cpp')
mapfile -t formatted < <(files_named '*.[ch]*' | grep -E '\.(cpp|h)$')
mapfile -t scripts < <(files_named '*.sh')

failed=()
step() {
    local name=$1
    shift
    echo "== $name"
    "$@" || failed+=("$name")
}

step formatting clang-format --dry-run --Werror "${formatted[@]}"
step 'shell scripts' shellcheck -x -P SCRIPTDIR .ci/run "${scripts[@]}"
step 'configuring for clang' cmake --preset clang -DWFOAL_BENCH=ON --log-level=WARNING
step 'clang build' cmake --build --preset clang
step 'package list' packaging/check-packages.sh build/clang build package test
step clang-tidy tests/tidy.py build/clang "${sources[@]}"

if [ ${#failed[@]} -gt 0 ]; then
    printf 'lint: failed: %s\n' "${failed[*]}" >&2
    exit 1
fi
echo 'lint: clean'
