#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# lint.sh [FILE...]: formatting, shell scripts, a clang build in which warnings are errors, and clang-tidy over the C++
# sources (all of them, or the named ones). `./test.sh --lint` installs what it needs first.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

sources=("$@")
[ $# -gt 0 ] || mapfile -t sources < <(find Src platform services tools tests bench examples -name '*.cpp' 2>/dev/null | sort)
mapfile -t formatted < <(find include Src platform services tools tests bench examples \
    \( -name '*.cpp' -o -name '*.h' \) 2>/dev/null | sort)
mapfile -t scripts < <(find . -path ./build -prune -o -name '*.sh' -print | sort)

failed=()
step() {
    local name=$1
    shift
    echo "== $name"
    "$@" || failed+=("$name")
}

# Only sources that the clang build compiles can be judged.
tidy() {
    local database=build/clang/compile_commands.json source
    local -a known=()
    for source in "${sources[@]}"; do
        grep -qF "$PWD/$source\"" $database && known+=("$source")
    done
    printf '%s\0' "${known[@]}" | xargs -0 -P "$(nproc)" -n 4 clang-tidy --quiet -p build/clang 2>/dev/null
}

step formatting clang-format --dry-run --Werror "${formatted[@]}"
step 'shell scripts' shellcheck -x -P SCRIPTDIR .ci/run "${scripts[@]}"
step 'configuring for clang' cmake --preset clang -DWFOAL_BENCH=ON --log-level=WARNING
step 'clang build' cmake --build --preset clang
step clang-tidy tidy

if [ ${#failed[@]} -gt 0 ]; then
    printf 'lint: failed: %s\n' "${failed[*]}" >&2
    exit 1
fi
echo 'lint: clean'
