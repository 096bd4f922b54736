#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""messages.py SOURCE_TREE: docs/operations.md lists exactly the errors and warnings that the code logs.

A row of the tables there begins with the level and the format as it stands in the code. What libVkNetConfigLib says in
one format for every failed request, "FUNCTION: KEY: REASON", is listed by its key instead.
"""
import pathlib
import re
import sys

CALL = re.compile(r'\b(?:WFOAL|VKNETCONFIG|QUOR|SERVICE)_(ERROR|WARNING)\(\s*((?:"(?:[^"\\]|\\.)*"\s*)+)')
PRINT = re.compile(r'\bVkLogPrint\(logContext\(\), (error|warning)Level,\s*((?:"(?:[^"\\]|\\.)*"\s*)+)')
FAULT = re.compile(r'\b(?:RequestError|systemError)\(\s*"([^"]*)"')
ROW = re.compile(r"^\| (error|warning) \| `([^`]+)` \|")
KEY_ROW = re.compile(r"^\| key \| (.*?) \|")


def sources(root, *folders):
    for folder in folders:
        yield from sorted(p for p in (root / folder).rglob("*") if p.suffix in (".cpp", ".h"))


def joined(literals):
    return "".join(re.findall(r'"((?:[^"\\]|\\.)*)"', literals)).replace('\\"', '"')


def inCode(root):
    found = {}
    for path in sources(root, "Src", "platform", "services"):
        text = path.read_text(encoding="utf-8")
        for pattern in (CALL, PRINT):
            for level, literals in pattern.findall(text):
                found[(level.lower(), joined(literals))] = path.relative_to(root)
    return found


def keysInCode(root):
    found = {}
    for path in sources(root, "platform/netconfig"):
        for key in FAULT.findall(path.read_text(encoding="utf-8")):
            found[key] = path.relative_to(root)
    return found


def main():
    root = pathlib.Path(sys.argv[1])
    rows, keys = set(), set()
    for line in (root / "docs/operations.md").read_text(encoding="utf-8").splitlines():
        match = ROW.match(line)
        if match:
            rows.add(match.groups())
        match = KEY_ROW.match(line)
        if match:
            keys.update(re.findall(r"`([^`]+)`", match.group(1)))
    code, codeKeys = inCode(root), keysInCode(root)
    failed = 0
    for what, present, listed in (("message", code, rows), ("key", codeKeys, keys)):
        for entry in sorted(set(present) - listed, key=str):
            print("docs/operations.md lacks the %s %s of %s" % (what, entry, present[entry]))
            failed = 1
        for entry in sorted(listed - set(present), key=str):
            print("docs/operations.md lists the %s %s, which no code says" % (what, entry))
            failed = 1
    if len(code) < 60 or len(codeKeys) < 10:
        print("only %d messages and %d keys were found in the code: is this the tree?" % (len(code), len(codeKeys)))
        failed = 1
    return failed


sys.exit(main())
