#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# fetch-vectors.sh FOLDER: fetches into FOLDER what others have written to test such code as ours, from the distribution's
# packages and without installing anything: the NIST PKITS certificates, and what the tests of Python's library feed its
# readers of JSON and of addresses (tests/outside/record.py). Does nothing when they are there.
set -euo pipefail

[ $# -eq 1 ] || { echo "usage: $0 FOLDER" >&2; exit 2; }
record=$(cd "$(dirname "${BASH_SOURCE[0]}")/../outside" && pwd)/record.py
mkdir -p "$1"
cd "$1"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
chmod 755 "$work"

# unpack PACKAGE: into a folder of that name.
unpack() {
    if ! (cd "$work" && apt-get -qq download "$1" >/dev/null 2>&1); then
        echo "$0: cannot download $1; is apt-get update done and a mirror reachable?" >&2
        exit 1
    fi
    dpkg -x "$work/$1"_*.deb "$work/$1"
}

if [ ! -e PKITS/certs ]; then
    unpack python3-cryptography-vectors
    cp -r "$(find "$work/python3-cryptography-vectors" -type d -name PKITS_data)" PKITS.new
    mv PKITS.new PKITS
fi
if [ ! -e python/json.txt ]; then
    # The distribution's own, whatever else is called so here: its tests must be of its version.
    version=$(/usr/bin/python3 -c 'import sys; print("%d.%d" % sys.version_info[:2])')
    unpack "libpython$version-testsuite"
    rm -rf python.new
    (cd "$work" && /usr/bin/python3 "$record" "$work/libpython$version-testsuite/usr/lib/python$version/test" recorded)
    cp -r "$work/recorded" python.new
    mv python.new python
fi
