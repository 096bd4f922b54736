#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# exposure.sh SOURCE_TREE: how exposed systemd rates each unit that is installed, from 0 to 10; docs/security.md has the
# figures. A unit that is rated worse than its limit fails, and one that has no limit here.
set -euo pipefail
units=$1/packaging/systemd
declare -A tenths=(
    [vesk-certificatemanager]=15 [vesk-connectionmanager]=15
    [vpnoal-openvpn@]=55 [vpnoal-openvpn-restore@]=55
    # They run what /etc/wireguard says as root, any command, so nothing is closed to them.
    [vpnoal-wg@]=100 [vpnoal-wg-restore@]=100
)

if ! systemd-analyze --help 2>/dev/null | grep -q -- --offline; then
    echo 'skipped: there is no systemd-analyze that judges files'
    exit 77
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failed=0
found=0
for unit in "$units"/*.service.in; do
    name=$(basename "$unit" .service.in)
    found=$((found + 1))
    if [ -z "${tenths[$name]:-}" ]; then
        echo "$name has no limit: say in $0 how exposed it may be"
        failed=1
        continue
    fi
    file=$work/${name/%@/@office}.service
    sed 's#@[A-Z_]*@#/usr/bin/true#g' "$unit" >"$file"
    judged=$(systemd-analyze security --offline=true --no-pager --threshold="${tenths[$name]}" "$file" 2>&1) || {
        echo "$name is rated worse than ${tenths[$name]} tenths"
        failed=1
    }
    tail -n 1 <<<"$judged"
done
[ "$found" = ${#tenths[@]} ] || { echo "${#tenths[@]} units have limits, $found are there"; failed=1; }
exit $failed
