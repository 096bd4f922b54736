#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""count-tests.py RESULTS NAME NOTES: prints how many tests ran, were skipped and failed, of what ctest --output-junit wrote.

Appends lines to the file NOTES that begin with NAME: each reason to skip with the number of tests, and each test that
failed. A test that ran has passed or failed.
"""
import collections
import re
import sys
import xml.etree.ElementTree


def isSkipped(case):
    """ctest also calls a test skipped whose program is not there."""
    skipped = case.find("skipped")
    return skipped is not None and skipped.get("message", "").startswith("SKIP_")


def skipReason(case):
    """GoogleTest says it on the line after "Skipped", a script on its last line."""
    output = (case.findtext("system-out") or "").strip()
    said = re.search(r": Skipped\n(.+)", output)
    if said:
        return said.group(1).strip()
    last = output.splitlines()[-1] if output else "no reason given"
    return re.sub(r"^(\[  SKIPPED \] |skipped: )", "", last.strip())


def main():
    results, name, notes = sys.argv[1:]
    passed, failed, reasons = 0, [], collections.Counter()
    for case in xml.etree.ElementTree.parse(results).getroot().iter("testcase"):
        if case.get("status") == "run":
            passed += 1
        elif isSkipped(case):
            reasons[skipReason(case)] += 1
        else:
            failed.append(case.get("name"))
    with open(notes, "a", encoding="utf-8") as out:
        for reason, count in sorted(reasons.items(), key=lambda item: (-item[1], item[0])):
            out.write("%s: %d skipped: %s\n" % (name, count, reason))
        for test in failed:
            out.write("%s: failed: %s\n" % (name, test))
    print(passed + len(failed), sum(reasons.values()), len(failed))


main()
