#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# nothing-left.sh BUILD: examples.sh leaves nothing in the build folder. What it would run in namespaces is left out here.
set -euo pipefail
build=$1 here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)

folders() { find "$build" -maxdepth 1 -name 'docs.*' | sort; }

before=$(folders)
status=0
"$here/examples.sh" "$build" true || status=$?
[ $status -ne 77 ] || exit 77
[ $status -eq 0 ] || { echo "examples.sh ended with $status"; exit 1; }
after=$(folders)
[ "$after" = "$before" ] || { printf 'examples.sh has left a folder; there are now:\n%s\n' "$after"; exit 1; }
