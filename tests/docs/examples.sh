#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# examples.sh BUILD ISOLATE: installs into a folder of its own, builds the first agent of the README and all code of the
# agent guide against that, and runs both, and the commands that commands.txt leaves to this test, in a private network
# with real services.
set -euo pipefail
build=$1 isolate=$2 here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
source=$(realpath "$here/../..")
work=$(mktemp -d "$build/docs.XXXXXX")
trap 'rm -rf "$work"' EXIT

[ -w /dev/net/tun ] || { echo 'there is no tun device for this user'; exit 77; }
[ -x "$source/build/daemons/bin/systemd-resolved" ] || { echo 'systemd-resolved was not fetched'; exit 77; }

cmake --install "$build" --prefix "$work/prefix" >"$work/log" 2>&1 || { cat "$work/log"; exit 1; }
library=$(dirname "$(find "$work/prefix" -name libVpnWfOal.so)")
mkdir "$work/bin" "$work/place"

# As an ordinary user would call it, who is root here.
cat >"$work/bin/sudo" <<'END'
#!/bin/sh
exec env "$@"
END
chmod +x "$work/bin/sudo"

export PKG_CONFIG_PATH=$library/pkgconfig
for document in README docs/agent-guide; do
    program=$work/$(basename $document)
    "$here/extract.py" "$source/$document.md" >"$program.cpp"
    read -ra flags < <(pkg-config --cflags libVpnWfOal)
    "${CXX:-c++}" -std=c++17 -O1 -Wall -Wextra -Werror -DOPENSSL_SUPPRESS_DEPRECATED "${flags[@]}" "$program.cpp" -o "$program" -lcrypto
done
"$here/commands.py" "$source" --run >"$work/commands"
"$here/commands.py" "$source" --mentioned >"$work/mentioned"
cp "$work/README.cpp" "$work/place/agent.cpp"

export PATH=$work/bin:$work/prefix/bin:$PATH LD_LIBRARY_PATH=$library WFOAL_DAEMONS_DIR=$source/build/daemons
# Not with exec: this shell removes its folder.
"$isolate" "$here/run-examples.sh" "$work" "$source"
