#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""valgrind.py [STEM...]: runs the unit tests of the release build under memcheck. A part of tests/full.sh.

Errors are what memcheck finds: reads of memory that is not there or not initialised, and memory that nobody refers to at
the end. tests/full/memcheck.supp says which of them are meant; tests/full/memcheck-left-out.txt names the stems that are
not run, with the reason. What was printed is in build/full/memcheck/.
"""
import concurrent.futures
import json
import pathlib
import re
import subprocess
import sys
import time

import figures

HERE = pathlib.Path("tests/full")
LOGS = pathlib.Path("build/full/memcheck")
MEMCHECK = ["valgrind", "--quiet", "--vgdb=no", "--error-exitcode=99", "--leak-check=full", "--show-leak-kinds=definite",
            "--errors-for-leak-kinds=definite", "--num-callers=30", "--suppressions=%s" % (HERE / "memcheck.supp")]
SECONDS = 900


def leftOut():
    lines = (HERE / "memcheck-left-out.txt").read_text(encoding="utf-8").splitlines()
    return dict(line.split(" ", 1) for line in lines if line and not line.startswith("#"))


def unitStems():
    """The programs with unit tests that GoogleTest runs."""
    listing = subprocess.run(["ctest", "--test-dir", "build/release", "--show-only=json-v1", "-L", "^unit$"], check=True,
                             stdout=subprocess.PIPE, text=True).stdout
    commands = [test["command"] for test in json.loads(listing)["tests"] if test.get("command")]
    return sorted({pathlib.Path(command[0]).name for command in commands if any("--gtest_filter=" in word for word in command)})


def check(stem):
    started, log = time.monotonic(), LOGS / (stem + ".log")
    with log.open("wb") as out:
        try:
            status = subprocess.run([*MEMCHECK, "build/release/bin/" + stem], check=False, stdout=out, stderr=subprocess.STDOUT,
                                    timeout=SECONDS).returncode
        except subprocess.TimeoutExpired:
            status = -1
    text = log.read_text(encoding="utf-8", errors="replace")
    errors = len(re.findall(r"^==\d+== (?:Invalid|Conditional jump|Use of uninit|Syscall param|Mismatched|Source and dest|"
                            r"[\d,]+ (?:\([^)]*\) )?bytes in .* definitely lost)", text, re.M))
    tests = re.findall(r"^\[  PASSED  \] (\d+) tests?\.", text, re.M)
    return stem, status, errors, int(tests[-1]) if tests else 0, time.monotonic() - started


def main():
    LOGS.mkdir(parents=True, exist_ok=True)
    omitted = leftOut()
    known = unitStems()
    stems = sys.argv[1:] or [stem for stem in known if stem not in omitted]
    with concurrent.futures.ThreadPoolExecutor(2) as workers:
        results = list(workers.map(check, stems))
    for stem, status, errors, tests, seconds in results:
        print("%-36s exit code %3d, %2d errors, %3d tests passed, %4d s" % (stem, status, errors, tests, seconds))
    failed = [stem for stem, status, *_ in results if status != 0]
    notes = ["Not run under memcheck: `%s`: %s." % (stem, reason) for stem, reason in omitted.items()]
    notes += ["tests/full/memcheck-left-out.txt names %s, which is no stem of unit tests." % stem for stem in omitted if stem not in known]
    notes += ["Failed under memcheck: `%s`." % stem for stem in failed]
    errors = sum(result[2] for result in results)
    return figures.report([
        figures.row("unit stems under memcheck without a failure", "%d of %d, %d tests" % (
            len(results) - len(failed), len(results), sum(result[3] for result in results)), not failed and results, "all"),
        figures.row("errors of memcheck", errors, errors == 0, "0"),
        figures.row("unit stems left out, with a reason", "%d of %d" % (len(omitted), len(known)), omitted.keys() <= set(known))], notes)


sys.exit(main())
