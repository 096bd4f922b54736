#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# devices.sh [--label REGEX] [NAME...]: builds and tests in root file systems of other machines, and prints a table.
#
#   i386    Debian 12 for 32-bit x86: the kernel runs its programs
#
# All of them are run when none is named. --label REGEX runs only tests with such a label, as ctest -L does; with
# --label unit only what these need is built.
#
# Roots and builds are below build/devices/ and kept, so that a second run builds only what has changed. Making and
# entering a root takes root. Nothing of the machine is touched: each root has mounts and processes of its own, and each
# test a network of its own. A row that cannot be run here says why. Exits with 1 when a row has failed.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
source=$(cd "$here/.." && pwd)
# shellcheck source=support/roots.sh
. "$here/support/roots.sh"
roots=$source/build/devices

# Of each row: Debian's release and architecture, and the personality that the kernel shows.
names=(i386)
declare -A release=([i386]=bookworm) architecture=([i386]=i386) personality=([i386]=linux32)

usage() {
    sed -n '4,13s/^# \{0,1\}//p' "$0"
}

die() {
    printf 'devices.sh: %s\n' "$*" >&2
    exit 2
}

# in_root NAME COMMAND...: with the source folder at /src, where only build/ can be written, and is the row's own.
in_root() {
    local name=$1
    shift
    # 9 is the lock, which no daemon that a test leaves behind is to hold.
    unshare --mount --pid --fork --kill-child --ipc --uts "$here/devices.sh" --inside "$name" "$@" 9>&-
}

inside() {
    local name=$1 root=$roots/$1
    shift
    mount --make-rprivate /
    mkdir -p "$root/src"
    mount --bind "$root" "$root"
    mount --bind "$source" "$root/src"
    mount -o remount,bind,ro "$root/src"
    mount --bind "$roots/$name.build" "$root/src/build"
    mount_system_folders "$root"
    cp /etc/resolv.conf "$root/etc/resolv.conf"
    cd "$root"
    # Not chroot alone: inside of one the kernel grants no user namespaces, and / is to be a mount that tests can change.
    pivot_root . mnt
    # shellcheck disable=SC2016  # for the shell in the root
    exec setarch "${personality[$name]}" chroot . env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C \
        DEBIAN_FRONTEND=noninteractive ${http_proxy:+http_proxy="$http_proxy"} \
        bash -c 'umount --lazy /mnt && cd /src && exec "$@"' - "$@"
}

make_root() {
    local name=$1 complete=$roots/.$1-complete
    [ ! -e "$complete" ] || return 0
    find_archive "${release[$name]}"
    rm -rf --one-file-system "${roots:?}/$name"
    debootstrap --variant=minbase --arch="${architecture[$name]}" "${release[$name]}" "$roots/$name" "$archive" \
        >>"$roots/log" 2>&1 || offline
    touch "$complete"
}

# Installing does nothing when all of it is there.
prepare() {
    local name=$1
    in_root "$name" packaging/install-packages.sh build package test >>"$roots/log" 2>&1 || offline
    # Tests that need what cannot be fetched are skipped.
    in_root "$name" tests/support/fetch-daemons.sh build/daemons >>"$roots/log" 2>&1 || [ -z "${CI:-}" ] || offline
    in_root "$name" tests/support/fetch-vectors.sh build/vectors >>"$roots/log" 2>&1 || [ -z "${CI:-}" ] || offline
}

# Of the folders with tests, those that hold tests with the label "unit", and what these tests look at.
unit_targets=(Src/all platform/all tools/vpnoalctl/all tests/api/all tests/base/all tests/docs/all tests/examples/all tests/fakes/all
    tests/fuzz/all tests/unit/all)

build() {
    local name=$1 targets=(all)
    [ "$label" != unit ] || targets=("${unit_targets[@]}")
    in_root "$name" cmake --preset release -DWFOAL_BENCH=OFF >"$roots/$name.log" 2>&1 &&
        in_root "$name" nice ninja -k 0 -C build/release "${targets[@]}" >>"$roots/$name.log" 2>&1
}

run_tests() {
    local name=$1 selection=()
    [ -z "$label" ] || selection=(-L "$label")
    in_root "$name" nice ctest --test-dir build/release -j2 --no-tests=error --output-on-failure \
        --test-output-size-passed 100000 --output-junit /src/build/results.xml "${selection[@]}" >>"$roots/$name.log" 2>&1
}

stripped_size() {
    in_root "$1" sh -c 'strip -o /tmp/stripped build/release/lib/libVpnWfOal.so && stat -c %s /tmp/stripped'
}

# row NAME WHAT...: a line of the table
row() {
    printf '%-8s %6s %8s %7s %9s %9s %15s\n' "$@"
}

# Writes NAME.row, one line of the table, and what is below it. What is not run has a reason.
run_row() {
    local name=$1 started built reason counts
    local line=$roots/$name.row notes=$roots/$name.notes
    rm -f "$line" "$notes"
    reason=$(make_root "$name" && prepare "$name") || {
        row "$name" - - - - - - >"$line"
        printf '%s: %s\n' "$name" "not run: ${reason:-its root could not be made, see $roots/log}" >"$notes"
        [ -n "$reason" ]
        return
    }
    started=$SECONDS
    if ! build "$name"; then
        grep -E '^FAILED: |error: ' "$roots/$name.log" | sed "s/^/$name: /" >"$notes" || true
        echo "$name: not built, see $roots/$name.log" >>"$notes"
        row "$name" - - - $((SECONDS - started)) - - >"$line"
        return 1
    fi
    built=$SECONDS
    rm -f "$roots/$name.build/results.xml"
    run_tests "$name" || true
    counts=$("$here/devices/count-tests.py" "$roots/$name.build/results.xml" "$name" "$notes") || {
        echo "$name: the tests could not be run, see $roots/$name.log" >"$notes"
        counts='- - -'
    }
    # shellcheck disable=SC2086  # three words
    row "$name" $counts $((built - started)) $((SECONDS - built)) "$(stripped_size "$name")" >"$line"
    [[ $counts == *' 0' ]]
}

if [ "${1:-}" = --inside ]; then
    shift
    inside "$@"
fi
label='' wanted=()
while [ $# -gt 0 ]; do
    case $1 in
    --label)
        [ $# -ge 2 ] || die '--label needs a value'
        label=$2
        shift
        ;;
    -h | --help) usage; exit 0 ;;
    *)
        [ -n "${architecture[$1]:-}" ] || die "no row is called '$1'; there are: ${names[*]}"
        wanted+=("$1")
        ;;
    esac
    shift
done
[ ${#wanted[@]} -gt 0 ] || wanted=("${names[@]}")

check_that_roots_can_be_made
use_proxy
: >"$roots/log"
status=0
for name in "${wanted[@]}"; do
    mkdir -p "$roots/$name.build"
    echo "$name: the log is $roots/$name.log"
    run_row "$name" || status=1
done
row name run skipped failed 'build s' 'tests s' 'plug-in bytes'
for name in "${wanted[@]}"; do
    cat "$roots/$name.row"
done
for name in "${wanted[@]}"; do
    [ ! -e "$roots/$name.notes" ] || cat "$roots/$name.notes"
done
exit $status
