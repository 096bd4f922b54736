#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# partners.sh BUILD_FOLDER COMPILER STANDARD [FLAG...]: an agent compiled so works with the plug-in as it is built: it
# makes an object of each interface, and their operations return what the documentation says.
set -euo pipefail
build=$1 compiler=$2 standard=$3 here=$(dirname "$(realpath "$0")")
flags=("${@:4}")
command -v "$compiler" > /dev/null || { echo "skipped: no $compiler here"; exit 77; }
# Before a standard is published its name ends with a letter.
if [ "$standard" = c++23 ] && ! "$compiler" -std=c++23 -fsyntax-only -x c++ /dev/null 2> /dev/null; then standard=c++2b; fi
can() {
    echo '#include <cstdint>' | "$compiler" -std="$standard" "${flags[@]}" -fsyntax-only -x c++ - > /dev/null 2>&1
}
can || { echo "skipped: $compiler cannot do $standard ${flags[*]} here"; exit 77; }
work=$(mktemp -d "$build/partners.XXXXXX")
trap 'rm -rf "$work"' EXIT
"$compiler" -std="$standard" "${flags[@]}" -Wall -Wextra -Werror -I"$here/../../include/agent" "$here/partners/agent.cpp" \
    -o "$work/agent" -ldl > "$work/log" 2>&1 || {
    cat "$work/log"
    exit 1
}
[ -w /dev/net/tun ] || { echo 'skipped: there is no tun device for this user'; exit 77; }
VKLOG_TARGET=stderr "$build/bin/isolate" "$here/partners/handset.sh" "$work" "$work/agent" "$build/lib/libVpnWfOal.so" "$work" \
    > "$work/transcript" 2> "$work/log" || { cat "$work/transcript" "$work/log"; exit 1; }
diff "$here/partners/transcript.txt" "$work/transcript" || { cat "$work/log"; exit 1; }
# The signature that came through the agent's hands is one of the key of the user's certificate.
openssl pkeyutl -verifyrecover -pubin -inkey "$work/client.pub" -in "$work/signature" -out "$work/recovered"
[ "$(cat "$work/recovered")" = xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx ] || { echo 'another signature'; exit 1; }
