#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# fetch-vectors.sh FOLDER: fetches the NIST PKITS certificates from the distribution's package of test vectors and
# unpacks them into FOLDER, without installing anything. Does nothing when they are there.
set -euo pipefail

[ $# -eq 1 ] || { echo "usage: $0 FOLDER" >&2; exit 2; }
mkdir -p "$1"
cd "$1"
[ ! -e PKITS/certs ] || exit 0

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
chmod 755 "$work"
if ! (cd "$work" && apt-get -qq download python3-cryptography-vectors >/dev/null 2>&1); then
    echo "$0: cannot download python3-cryptography-vectors; is apt-get update done and a mirror reachable?" >&2
    exit 1
fi
dpkg -x "$work"/*.deb "$work/unpacked"
cp -r "$(find "$work/unpacked" -type d -name PKITS_data)" PKITS.new
mv PKITS.new PKITS
