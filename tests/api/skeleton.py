#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""skeleton.py SOURCE_TREE VPNOALCONFORM: the example platform says above each function of the platform's headers what it
promises and which promise of the conformance program tries it. Each that it names there is one of the program's for
this header, and none of the program's is missing."""
import collections
import pathlib
import re
import subprocess
import sys

SOURCES = {"VkLogLib.h": "Log.c", "VkNetConfigLib.h": "NetworkConfiguration.c", "powerd.h": "Power.c", "quorservice.h": "ServiceBus.c"}


def functionsOf(header):
    return re.findall(r"^[a-zA-Z][\w *]*?\b(\w+)\([^;{}]*\)[^;{}()]*(?:\([^;]*\))*;", header, re.M)


def commentAbove(source, function):
    """The comment that ends where the function begins, as one line."""
    found = re.search(r"/\*((?:(?!\*/).)*)\*/\n[a-zA-Z][\w *]*?\b%s\(" % function, source, re.S)
    return re.sub(r"\n \* ?", " ", found.group(1)) if found else ""


def main():
    tree, program = pathlib.Path(sys.argv[1]), sys.argv[2]
    listed = collections.defaultdict(set)
    for line in subprocess.run([program, "--list"], check=True, capture_output=True, text=True).stdout.splitlines():
        header, promise = line.split(None, 1)
        listed[header].add(promise)
    faults = [] if set(listed) == set(SOURCES) else ["the program knows other headers: %s" % sorted(listed)]
    for header, name in SOURCES.items():
        source = (tree / "examples/platform" / name).read_text(encoding="utf-8")
        functions = [f for f in functionsOf((tree / "platform/include" / header).read_text(encoding="utf-8"))]
        if len(functions) < 2:
            faults.append("%s: only %s was understood" % (header, functions))
        tried = set()
        for function in functions:
            comment = commentAbove(source, function)
            if "Promises: " not in comment or "Tried by: " not in comment:
                faults.append("%s: %s lacks what it promises, or what tries it" % (name, function))
            tried.update(re.findall(r'"([^"]*)"', comment.partition("Tried by: ")[2]))
        faults += ["%s: no promise is '%s'" % (name, promise) for promise in sorted(tried - listed[header])]
        faults += ["%s: nobody mentions '%s'" % (name, promise) for promise in sorted(listed[header] - tried)]
    for fault in faults:
        print(fault)
    return 1 if faults else 0


sys.exit(main())
