#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# run-foreign.sh ARCHITECTURE COMMAND...: runs a command where the kernel hands programs of the architecture (arm64, armhf,
# s390x) to qemu-user, in namespaces of their own: nothing of the machine is touched. It takes root, the package
# qemu-user-static, and a kernel that has such a table for each user namespace (Linux 6.7).
set -euo pipefail

architecture=$1
shift
case $architecture in
arm64) emulator=aarch64 ;;
armhf) emulator=arm ;;
*) emulator=$architecture ;;
esac

# A namespace's users are all those of the machine, which only somebody outside can say.
unshare --user sleep infinity &
holder=$!
trap 'kill $holder' EXIT
for ((attempt = 0; attempt < 100; ++attempt)); do
    [ "$(readlink /proc/$holder/ns/user)" = "$(readlink /proc/self/ns/user)" ] || break
    sleep 0.1
done
for map in uid_map gid_map; do
    echo '0 0 4294967295' >/proc/$holder/$map
done

# shellcheck disable=SC2016  # for the shell in the namespaces
nsenter --user=/proc/$holder/ns/user \
    unshare --mount --mount-proc --pid --fork --kill-child --ipc --uts bash -euc '
        mount -t binfmt_misc binfmt_misc /proc/sys/fs/binfmt_misc
        cat "/usr/lib/binfmt.d/qemu-$1.conf" >/proc/sys/fs/binfmt_misc/register
        "${@:2}" || exit
        exit 0  # the shell stays, as the first process: it takes care of what is left without a parent
    ' - "$emulator" "$@"
