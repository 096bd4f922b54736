#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""extract.py FILE: the C++ of a document as one program, on stdout.

Blocks marked "cpp" stand for themselves. Blocks marked "cpp statements" become functions, in which the names that the
text uses (plugin, system, certificates, sockets, storage, events) are what the text says; main() runs them in order.
"""
import pathlib
import re
import sys

FRAME = """
void statements%d([[maybe_unused]] PluginLibrary& plugin, [[maybe_unused]] KEST_SystemPlugin& system,
                  [[maybe_unused]] KEST_CertPlugin& certificates, [[maybe_unused]] KEST_SocketPlugin& sockets,
                  [[maybe_unused]] KEST_StoragePlugin& storage, [[maybe_unused]] Events& events)
{
%s}
"""
MAIN = """
int main()
{
    PluginLibrary plugin;
    Events events;
    {
        const auto system = plugin.create<KEST_SystemPlugin>(KEST_SYSTEM_INTERFACE);
        const auto certificates = plugin.create<KEST_CertPlugin>(KEST_CERTIFICATE_INTERFACE);
        const auto sockets = plugin.create<KEST_SocketPlugin>(KEST_SOCKET_INTERFACE);
        const auto storage = plugin.create<KEST_StoragePlugin>(KEST_STORAGE_INTERFACE);
%s    }
    std::puts("done");
}
"""


def main():
    text = pathlib.Path(sys.argv[1]).read_text(encoding="utf-8")
    count, functions, calls = 0, "", ""
    for block in re.finditer(r"^```cpp( statements)?\n(.*?)^```$", text, re.M | re.S):
        place = '#line %d "%s"\n' % (text.count("\n", 0, block.start(2)) + 1, sys.argv[1])
        if block.group(1) is None:
            print(place + block.group(2))
            continue
        count += 1
        functions += FRAME % (count, place + block.group(2))
        calls += "        statements%d(plugin, *system, *certificates, *sockets, *storage, events);\n" % count
    if count > 0:
        print(functions + MAIN % calls)


main()
