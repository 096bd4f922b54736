#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# unit-tests.sh: the row i386-unit of tests/devices.sh as one test. It prints the output of the tests that have failed, and
# is skipped where the row cannot be run.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."

status=0
tests/devices.sh i386-unit || status=$?
if [ $status -eq 0 ] && grep -q ': not run: ' build/devices/i386-unit.notes 2>/dev/null; then exit 77; fi
if [ $status -eq 1 ] && [ -e build/devices/i386-unit.log ]; then
    tests/support/retell-failures.py <build/devices/i386-unit.log | sed -n '/^What failed/,$p'
fi
exit $status
