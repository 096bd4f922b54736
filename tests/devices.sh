#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# devices.sh [--label REGEX] [NAME...]: builds and tests in root file systems of other machines, and prints a table.
#
#   i386          Debian 12 for 32-bit x86: the kernel runs its programs. All tests
#   i386-unit     the same, built in minutes: unit tests. Only run when it is named
#   trixie        Debian 13: its compiler, OpenSSL, systemd and nftables. All tests
#   trixie-clang  the same with clang and libc++: unit and platform tests
#   arm64, armhf  cross compilers of Debian 12, and qemu-user for what they made: unit tests, and certificates in full
#   s390x         the same, big-endian
#   musl          another C library, with clang and libc++ (tests/devices/musl.sh): unit tests with fakes of the platform
#   packages      the Debian packages of each architecture (tests/devices/packages.sh)
#   porting       the commands of docs/porting.md (tests/devices/porting.sh)
#
# All of them are run when none is named. --label REGEX runs only tests with such a label, as ctest -L does; with
# --label unit only what these need is built. A test that a row cannot run is counted as skipped, with the reason
# (tests/devices/left-out.txt).
#
# Roots and builds are below build/devices/ and build/cross/ and kept, so that a second run builds only what has changed.
# Making and entering a root takes root. Nothing of the machine is touched: each root has mounts and processes of its
# own, and each test a network of its own. A row that cannot be run here says why. Exits with 1 when a row has failed.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
source=$(cd "$here/.." && pwd)
# shellcheck source=support/roots.sh
. "$here/support/roots.sh"
roots=$source/build/devices

# Of each row: its root below build/, Debian's release and architecture in there, and how it is built and run.
names=()
declare -A root release architecture kind
while read -r name folder root_release root_architecture how; do
    [ "$how" = quick ] || names+=("$name")
    root[$name]=$folder release[$name]=$root_release architecture[$name]=$root_architecture kind[$name]=$how
done <<'END'
i386         devices/i386   bookworm i386  native
i386-unit    devices/i386   bookworm i386  quick
trixie       devices/trixie trixie   amd64 native
trixie-clang devices/trixie trixie   amd64 clang
arm64        cross/arm64    bookworm arm64 cross
armhf        cross/armhf    bookworm armhf cross
s390x        cross/s390x    bookworm s390x cross
musl         devices/musl   bookworm amd64 musl
packages     -              -        -     script
porting      -              -        -     script
END

usage() {
    sed -n '4,24s/^# \{0,1\}//p' "$0"
}

die() {
    printf 'devices.sh: %s\n' "$*" >&2
    exit 2
}

# in_root NAME COMMAND...: with the source folder at /src, where only build/ can be written, and is the row's own.
in_root() {
    local name=$1 through=()
    shift
    [ "${kind[$name]}" != cross ] || through=(tests/devices/run-foreign.sh "${architecture[$name]}")
    # 9 is the lock, which no daemon that a test leaves behind is to hold.
    unshare --mount --pid --fork --kill-child --ipc --uts "$here/devices.sh" --inside "$name" "${through[@]}" "$@" 9>&-
}

inside() {
    local name=$1 folder=$source/build/${root[$1]} personality=linux64
    shift
    [ "${architecture[$name]}" != i386 ] || personality=linux32
    mount --make-rprivate /
    mkdir -p "$folder/src"
    mount --bind "$folder" "$folder"
    mount --bind "$source" "$folder/src"
    mount -o remount,bind,ro "$folder/src"
    mount --bind "$roots/$name.build" "$folder/src/build"
    mount_system_folders "$folder"
    # Where a test runs a systemd; it needs a group of its own.
    mount -t cgroup2 cgroup2 "$folder/sys/fs/cgroup" 2>/dev/null || true
    cp /etc/resolv.conf "$folder/etc/resolv.conf"
    cd "$folder"
    # Not chroot alone: inside of one the kernel grants no user namespaces, and / is to be a mount that tests can change.
    pivot_root . mnt
    # The shell stays, as the first process: it takes care of what a test leaves behind without a parent.
    # shellcheck disable=SC2016  # for the shell in the root
    exec setarch $personality chroot . env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C \
        DEBIAN_FRONTEND=noninteractive ${http_proxy:+http_proxy="$http_proxy"} \
        bash -c 'umount --lazy /mnt && cd /src && "$@"; exit $?' - "$@"
}

make_root() {
    local name=$1 folder=$source/build/${root[$1]} complete
    complete=$roots/.${folder##*/}-complete
    if [ "${kind[$name]}" = cross ]; then
        "$source/packaging/cross-root.sh" --tests "${architecture[$name]}" true 9>&-
        return
    fi
    [ ! -e "$complete" ] || return 0
    find_archive "${release[$name]}"
    rm -rf --one-file-system "$folder"
    debootstrap --variant=minbase --arch="${architecture[$name]}" "${release[$name]}" "$folder" "$archive" \
        >>"$roots/log" 2>&1 || offline
    touch "$complete"
}

# Installing does nothing when all of it is there.
prepare() {
    local name=$1
    if [ "${kind[$name]}" = quick ]; then
        in_root "$name" packaging/install-packages.sh build unit >>"$roots/log" 2>&1 || offline
        return
    fi
    if [ "${kind[$name]}" = musl ]; then
        in_root "$name" packaging/install-packages.sh build unit musl >>"$roots/log" 2>&1 || offline
        in_root "$name" tests/devices/musl.sh --libraries >>"$roots/log" 2>&1
        return
    fi
    if [ "${kind[$name]}" != cross ]; then
        in_root "$name" packaging/install-packages.sh build package test >>"$roots/log" 2>&1 || offline
        # Tests that need what cannot be fetched are skipped.
        in_root "$name" tests/support/fetch-daemons.sh build/daemons >>"$roots/log" 2>&1 || [ -z "${CI:-}" ] || offline
    fi
    in_root "$name" tests/support/fetch-vectors.sh build/vectors >>"$roots/log" 2>&1 || [ -z "${CI:-}" ] || offline
}

# Of the folders with tests, those that hold tests with the label "unit", and what these tests look at.
unit_targets=(Src/all platform/all tools/vpnoalctl/all tests/api/all tests/base/all tests/docs/all tests/examples/all
    tests/fakes/all tests/fuzz/all tests/outside/all tests/unit/all tools/conformance/all isolate)

# Sets `targets`, what is built, and what ctest is told: `selection`, the labels of the tests, and `excluded`, the names
# of those that are not run.
select_tests() {
    targets=(all) selection=() excluded=()
    case ${kind[$1]} in
    quick)
        targets=(Src/all tests/api/all tests/base/all tests/fakes/all tests/unit/all isolate)
        selection=(-L '^unit$')
        excluded=(-E "_NOT_BUILT\$|$(left_out quick)")
        ;;
    clang)
        targets=("${unit_targets[@]}" services/all tests/tools/all tests/platform/all tests/services/all)
        selection=(-L '^(unit|platform)$')
        excluded=(-E "_NOT_BUILT\$|$(left_out clang)")
        ;;
    musl)
        targets=(Src/all tests/base/all tests/fakes/all tests/fuzz/all tests/unit/all isolate)
        selection=(-L '^unit$')
        excluded=(-E "_NOT_BUILT\$|$(left_out musl)")
        ;;
    cross)
        targets=("${unit_targets[@]}" PkitsTest)
        selection=(-L '^(unit|integration)$')
        excluded=(-E "_NOT_BUILT\$|$(left_out cross)")
        ;;
    esac
    [ -z "$label" ] || selection+=(-L "$label")
    [ "$label" != unit ] || targets=("${unit_targets[@]}")
}

# left_out KIND: names of the tests that such a row leaves out, as one regular expression.
left_out() {
    awk -v kind="$1" '$1 == kind { print $2 }' "$here/devices/left-out.txt" | paste -sd '|'
}

# GoogleTest with the other standard library; libfmt is header-only where its library has the wrong one.
libcxx=(-DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_CXX_FLAGS='-stdlib=libc++ -DFMT_HEADER_ONLY')
configure() {
    local name=$1 options=(-G Ninja -S . -B build/release --preset release -DWFOAL_BENCH=OFF -DWFOAL_QUICK_TESTS=ON)
    local all_quick=(-DCMAKE_BUILD_TYPE=Debug -DCMAKE_C_FLAGS_DEBUG=-O0 -DCMAKE_CXX_FLAGS_DEBUG=-O0 -DCMAKE_UNITY_BUILD=ON)
    # Nobody looks for names of sources in there.
    local lean=(-DCMAKE_C_FLAGS_RELWITHDEBINFO='-O2 -DNDEBUG' -DCMAKE_CXX_FLAGS_RELWITHDEBINFO='-O2 -DNDEBUG' -DCMAKE_UNITY_BUILD=ON)
    case ${kind[$name]} in
    quick) in_root "$name" cmake "${options[@]}" "${all_quick[@]}" ;;
    native) in_root "$name" cmake "${options[@]}" "${lean[@]}" ;;
    cross)  # qemu-user is slow
        in_root "$name" packaging/cross-cmake.sh "${architecture[$name]}" "${options[@]}" "${lean[@]}" \
            -DWFOAL_TEST_TIMEOUT=1500
        ;;
    musl)
        in_root "$name" tests/devices/musl.sh -G Ninja -S examples/platform -B build/platform &&
            in_root "$name" ninja -C build/platform &&
            in_root "$name" tests/devices/musl.sh "${options[@]}" "${all_quick[@]}" -DCMAKE_UNITY_BUILD=OFF \
                -DWFOAL_PLATFORM=external -DCMAKE_LIBRARY_PATH=/src/build/platform
        ;;
    clang)
        in_root "$name" cmake -G Ninja -S /usr/src/googletest -B build/googletest "${libcxx[@]}" \
            -DCMAKE_INSTALL_PREFIX=/src/build/installed &&
            in_root "$name" ninja -C build/googletest install &&
            in_root "$name" cmake "${options[@]}" "${lean[@]}" "${libcxx[@]}" -DCMAKE_PREFIX_PATH=/src/build/installed
        ;;
    esac
}

build() {
    local name=$1
    configure "$name" >"$roots/$name.log" 2>&1 &&
        in_root "$name" nice ninja -k 0 -C build/release "${targets[@]}" >>"$roots/$name.log" 2>&1
}

run_tests() {
    local name=$1
    in_root "$name" nice ctest --test-dir build/release -j2 --no-tests=error --output-on-failure \
        --test-output-size-passed 100000 --output-junit /src/build/results.xml "${selection[@]}" "${excluded[@]}" >>"$roots/$name.log" 2>&1
}

names_of_tests() {
    in_root "$1" ctest --test-dir build/release --show-only "${@:2}" | sed -n 's/^ *Test *#[0-9]*: //p'
}

# Tests that the row leaves out, with the reasons, below the table; and programs of tests that are not built.
count_left_out() {
    local name=$1 tests row expression reason count total=0
    tests=$(names_of_tests "$name" "${selection[@]}")
    while read -r row expression reason; do
        [ "$row" = "${kind[$name]}" ] || continue
        count=$(grep -cE "$expression" <<<"$tests") || continue
        total=$((total + count))
        echo "$name: $count skipped: $reason" >>"$roots/$name.notes"
    done < <(grep '^[^#]' "$here/devices/left-out.txt")
    count=$(names_of_tests "$name" | grep -c '_NOT_BUILT$') || true
    reason='what they test are daemons and the kernel'
    [[ ${kind[$name]} != @(quick|musl) ]] || reason='the row tests the plug-in and what it is made of'
    [ "$count" = 0 ] || echo "$name: $count programs of tests are not built: $reason" >>"$roots/$name.notes"
    echo $total
}

# Of what is installed; a quick build is none, nor one with static libraries.
stripped_size() {
    [[ ${kind[$1]} != @(quick|musl) ]] || { echo -; return; }
    # shellcheck disable=SC2016  # for the shell in the root
    in_root "$1" sh -c '
        strip=$(sed -n "s/^CMAKE_STRIP:[A-Z]*=//p" build/release/CMakeCache.txt)
        "$strip" -o /tmp/stripped build/release/lib/libVpnWfOal.so && stat -c %s /tmp/stripped'
}

# row NAME WHAT...: a line of the table
row() {
    printf '%-12s %6s %8s %7s %9s %9s %15s\n' "$@"
}

# A row that is a script of its own.
run_script() {
    local name=$1 started=$SECONDS status=0
    "$here/devices/$name.sh" >"$roots/$name.log" 2>&1 9>&- || status=$?
    case $status in
    0) row "$name" 1 0 0 - $((SECONDS - started)) - >"$line" ;;
    77)
        row "$name" 0 1 0 - - - >"$line"
        echo "$name: 1 skipped: $(tail -n 1 "$roots/$name.log" | sed 's/^skipped: //')" >"$notes"
        [ -z "${CI:-}" ]
        ;;
    *)
        row "$name" 1 0 1 - $((SECONDS - started)) - >"$line"
        echo "$name: failed, see $roots/$name.log" >"$notes"
        return 1
        ;;
    esac
}

# Writes NAME.row, one line of the table, and NAME.notes, what is below it. What is not run has a reason.
run_row() {
    local name=$1 started built reason counts skipped
    local line=$roots/$name.row notes=$roots/$name.notes
    rm -f "$line" "$notes"
    if [ "${kind[$name]}" = script ]; then
        run_script "$name"
        return
    fi
    reason=$(make_root "$name" && prepare "$name") || {
        row "$name" - - - - - - >"$line"
        printf '%s: %s\n' "$name" "not run: ${reason:-its root could not be made, see $roots/log}" >"$notes"
        [ -n "$reason" ] && [ -z "${CI:-}" ]
        return
    }
    select_tests "$name"
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
    if [ "$counts" != '- - -' ]; then
        read -r run skipped failed <<<"$counts"
        counts="$run $((skipped + $(count_left_out "$name"))) $failed"
    fi
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
        [ -n "${kind[$1]:-}" ] || die "no row is called '$1'; there are: ${names[*]}"
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
