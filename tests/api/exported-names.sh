#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# exported-names.sh LIBRARY LIST: the library's dynamic symbols are exactly the names in the list.
set -euo pipefail
export LC_ALL=C
diff -u <(sort "$2") <(nm -D --defined-only "$1" | awk '{ print $3 }' | sed 's/@.*//' | sort)
