#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# in-root.sh ROOT PACKAGES SCRIPT: runs the script beside this one in a copy of the root file system ROOT that nobody
# else sees and that vanishes when the script ends: with a network, processes and devices of its own. The script finds
# the packages in /mnt/packages, the examples in /mnt/examples and the scripts in /mnt/tests. Exits with 77 when
# make-roots.sh could not make the root.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)

if [ "$1" != --inside ]; then
    [ "$(id -u)" -eq 0 ] || { echo 'entering a root file system takes root'; exit 77; }
    [ -e "$(dirname "$1")/.complete" ] || { echo 'there is no root file system to install the packages in'; exit 77; }
    exec unshare --mount --pid --fork --kill-child --net --ipc --uts "$here/in-root.sh" --inside "$@"
fi
shift
root=$1 packages=$2 script=$3
# shellcheck source=../support/roots.sh
. "$here/../support/roots.sh"

mount --make-rprivate /
stage=$root.stage
mkdir -p "$stage"
mount -t tmpfs -o mode=755 scratch "$stage"
mkdir "$stage/upper" "$stage/work" "$stage/root"
# Where the kernel has no such file system, a copy in memory.
mount -t overlay -o "lowerdir=$root,upperdir=$stage/upper,workdir=$stage/work" overlay "$stage/root" 2>/dev/null ||
    cp -a "$root/." "$stage/root"
cd "$stage/root"
mount_system_folders .
mount -t tmpfs -o mode=755 mnt mnt
mkdir mnt/packages mnt/examples mnt/tests
mount --bind "$packages" mnt/packages
mount --bind "$here/../../examples" mnt/examples
mount --bind "$here" mnt/tests
exec chroot . env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C DEBIAN_FRONTEND=noninteractive \
    bash "/mnt/tests/$script"
