#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# layering.sh SOURCE_TREE: follows every #include "..." of the tree. Fails on a circle, and on an include that points to
# a part which the including part must not know.
set -euo pipefail
export LC_ALL=C
cd "$1"

# Which part may include which: folder, then the folders that it may reach beside itself. The most exact folder counts.
rules="
base/handles         -
base/result          -
base/text            base/result
base/json            base/result base/text
base/loop            base/handles
base/net             base/result base/text
base/io              base/handles base/result
base/netlink         base/handles
base/process         base/handles base/result base/text
base/settings        base/handles base/io base/net base/result base/text
base/resolved        base/handles base/json base/net base/result base/text
base/undolog         base/handles base/io base/json base/net base/result base/settings base/text
include/agent        -
include/plugin       include/agent base/handles
platform/include     -
Src/Decisions        base/handles base/net
Src                  Src/Decisions include base/handles base/net base/result platform/include
platform/systembus   base/handles platform/include
platform/log         base/handles base/io base/result platform/include
platform/bus         base/handles platform/include platform/systembus
platform/power       base/handles platform/include platform/systembus
platform/netconfig   base platform/include platform/systembus
services             base platform/include platform/systembus Src/Decisions
tools                base include/agent platform/include Src/Decisions
"
# The plug-in's own layers, from the top: a file includes its own layer and those below it.
layers='
PluginEntry
EventThread
NetworkStatus
SystemInterface SocketInterface StorageInterface CertificateInterface ObjectRegistry QuorClient
NetLinkHelper InterfaceIndex
Log Assertion PluginIdentifier DottedAddress
'

# FILE INCLUDED, one a line, for every include that is a file of this tree.
edges=$(
    for file in $(find base include Src platform services tools -name '*.h' -o -name '*.cpp' -o -name '*.c' | sort); do
        { sed -n 's/^ *# *include *"\([^"]*\)".*/\1/p' "$file" || true; } | while read -r name; do
            folder=$(dirname "$file")
            top=$(cut -d/ -f1-2 <<< "$file/")
            for base in "$folder" "$top" base Src include/agent include/plugin platform/include platform/systembus; do
                if [ -f "$base/$name" ]; then
                    echo "$file $(realpath --relative-to=. "$base/$name")"
                    break
                fi
            done
        done
    done
)
[ "$(wc -l <<< "$edges")" -gt 50 ] || { echo "found hardly any include: is this the tree?"; exit 1; }
failed=0

tsort <<< "$edges" > /dev/null || { echo "circle of includes, see above"; failed=1; }

judge() {
    awk -v rules="$rules" -v layers="$layers" '
        function isIn(path, folder) { return index(path, folder "/") == 1 }
        function partOf(path,   i, best) {
            best = ""
            for (i in allowed) if (isIn(path, i) && length(i) > length(best)) best = i
            return best
        }
        function layerOf(path,   name) {
            if (path ~ /^Src\/(System|Certificate)Interface\//) return layer[(path ~ /System/) ? "SystemInterface" : "CertificateInterface"]
            name = path; sub(/.*\//, "", name); sub(/\.[a-z]+$/, "", name)
            return name in layer ? layer[name] : 0
        }
        BEGIN {
            n = split(rules, line, "\n")
            for (i = 1; i <= n; ++i) {
                m = split(line[i], word, " ")
                if (m < 2) continue
                allowed[word[1]] = " "
                for (j = 2; j <= m; ++j) allowed[word[1]] = allowed[word[1]] word[j] " "
            }
            n = split(layers, line, "\n"); depth = 0
            for (i = 1; i <= n; ++i) {
                m = split(line[i], word, " ")
                if (m > 0) ++depth
                for (j = 1; j <= m; ++j) layer[word[j]] = depth
            }
        }
        {
            from = partOf($1); to = partOf($2)
            if (from == "") { print $1 ": belongs to no part"; bad = 1; next }
            if (from != to && to != "" && index(allowed[from], " " to " ") == 0) {
                # What a folder may reach includes the folders below it.
                ok = 0; m = split(allowed[from], word, " ")
                for (j = 1; j <= m; ++j) if ($2 == word[j] || isIn($2, word[j])) ok = 1
                if (!ok) { print $1 " must not include " $2; bad = 1 }
            }
            if (to == "") { print $1 " includes " $2 ", which belongs to no part"; bad = 1 }
            if (layerOf($1) && layerOf($2) && layerOf($2) < layerOf($1)) { print $1 " includes " $2 " of a layer above"; bad = 1 }
        }
        END { exit bad }'
}
judge <<< "$edges" || failed=1

# The judge itself must see each kind of fault.
for fault in "Src/Log.h platform/bus/Bus.h" "Src/NetLinkHelper.cpp Src/EventThread.h" "include/agent/kest/Plugin.h Src/Log.h" \
             "tools/vpnoalctl/main.cpp Src/Log.h" "platform/log/VkLogLib.cpp platform/bus/Bus.h"; do
    if judge <<< "$fault" > /dev/null; then echo "not seen as a fault: $fault"; failed=1; fi
done
if printf 'a b\nb c\nc a\n' | tsort > /dev/null 2>&1; then echo "tsort does not see a circle"; failed=1; fi
exit $failed
