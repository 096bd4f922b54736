#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Passes on what `ctest --output-on-failure` prints, and prints the output of failed tests once more above the summary.

In the log of two thousand tests it is found there.
"""

import re
import signal
import sys

RESULT = re.compile(r" *\d+/\d+ Test +#\d+: (\S+) ")
NEXT = re.compile(r" *Start +\d+: ")
SUMMARY = re.compile(r"\d+% tests passed, ")

signal.signal(signal.SIGINT, signal.SIG_IGN)  # ctest ends by it, and then this does
for stream in (sys.stdin, sys.stdout):
    stream.reconfigure(encoding="utf-8", errors="surrogateescape")  # tests print all kinds of bytes
failures = []
is_failure = False
for line in sys.stdin:
    result = RESULT.match(line)
    if result or NEXT.match(line) or SUMMARY.match(line):
        is_failure = bool(result) and "***" in line and "***Skipped" not in line
        if is_failure:
            failures.append(f"-- {result.group(1)}\n")
    elif is_failure:
        failures.append(line)
    if SUMMARY.match(line) and failures:
        print("What failed, once more:\n")
        print("".join(failures))
    print(line, end="", flush=True)
