#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""valgrind.py [STEM...]: runs the unit tests of the release build under memcheck. A part of tests/full.sh.

Errors are what memcheck finds: reads of memory that is not there or not initialised, and memory that nobody refers to at
the end. tests/full/memcheck.supp says which of them are meant; tests/full/memcheck-left-out.txt names the stems and tests
that are not run, with the reason. A test that needs a system call which memcheck does not have is counted apart; that of
Debian 12 has no pidfd_open(). What was printed is in build/full/memcheck/.
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
            "--errors-for-leak-kinds=definite", "--num-callers=30",
            "--soname-synonyms=somalloc=nouserintercepts",  # tests have an operator new that fails
            "--suppressions=%s" % (HERE / "memcheck.supp")]
SECONDS = 900
ERROR = re.compile(r"^==\d+== (?:Invalid|Conditional jump|Use of uninit|Syscall param|Mismatched|Source and dest|"
                   r"[\d,]+ (?:\([^)]*\) )?bytes in .* definitely lost)", re.M)
TEST = re.compile(r"^\[ RUN      \] (\S+)\n(.*?)^\[(  FAILED  |       OK )\]", re.M | re.S)
UNKNOWN_CALL = "Function not implemented"


def leftOut():
    lines = (HERE / "memcheck-left-out.txt").read_text(encoding="utf-8").splitlines()
    return dict(line.split(" ", 1) for line in lines if line and not line.startswith("#"))


def unitStems():
    """The programs with unit tests that GoogleTest runs."""
    listing = subprocess.run(["ctest", "--test-dir", "build/release", "--show-only=json-v1", "-L", "^unit$"], check=True,
                             stdout=subprocess.PIPE, text=True).stdout
    commands = [test["command"] for test in json.loads(listing)["tests"] if test.get("command")]
    return sorted({pathlib.Path(command[0]).name for command in commands if any("--gtest_filter=" in word for word in command)})


class Stem:
    """What became of the tests of a program."""

    def __init__(self, name, omittedTests):
        self.omittedTests = ":".join(omittedTests)
        self.name, self.log = name, LOGS / (name + ".log")
        self.log.unlink(missing_ok=True)
        started = time.monotonic()
        self.ended, self.errors = True, 0
        self.passed, self.failed, self.unknown = set(), set(), set()
        self.run("*")
        for test in sorted(self.failed):  # once more, in a process of its own as ctest has it
            self.run(test)
        self.seconds = time.monotonic() - started

    def run(self, tests):
        """In one process, which is faster than one for each."""
        try:
            run = subprocess.run([*MEMCHECK, "build/release/bin/" + self.name, "--gtest_filter=%s-%s" % (tests, self.omittedTests)], check=False,
                                 stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=SECONDS)
            status, text = run.returncode, run.stdout.decode(errors="replace")
        except subprocess.TimeoutExpired as late:
            status, text = -1, (late.stdout or b"").decode(errors="replace")
        with self.log.open("a", encoding="utf-8") as log:
            log.write(text)
        self.ended = self.ended and status in (0, 1)
        self.errors += len(ERROR.findall(text))
        for test, said, end in TEST.findall(text):
            if end.strip() == "OK":
                self.passed.add(test)
                self.failed.discard(test)
            elif UNKNOWN_CALL in said:
                self.unknown.add(test)
            elif test not in self.passed:
                self.failed.add(test)

    def isGood(self):
        return self.ended and not self.errors and not self.failed


def main():
    LOGS.mkdir(parents=True, exist_ok=True)
    omitted = leftOut()
    known = unitStems()
    stems = sys.argv[1:] or [stem for stem in known if stem not in omitted]
    with concurrent.futures.ThreadPoolExecutor(2) as workers:
        results = list(workers.map(lambda stem: Stem(stem, [name for name in omitted if "." in name]), stems))
    for stem in results:
        print("%-36s %-6s %3d tests passed, %2d failed, %2d need an unknown call, %2d errors, %4d s" % (
            stem.name, "ended" if stem.ended else "DIED", len(stem.passed), len(stem.failed), len(stem.unknown), stem.errors, stem.seconds))
    failed = [stem.name for stem in results if not stem.isGood()]
    notes = ["Not run under memcheck: `%s`: %s." % (stem, reason) for stem, reason in omitted.items()]
    strange = [name for name in omitted if "." not in name and name not in known]
    notes += ["tests/full/memcheck-left-out.txt names %s, which is no stem of unit tests." % name for name in strange]
    notes += ["Failed under memcheck: `%s`." % stem for stem in failed]
    errors = sum(stem.errors for stem in results)
    return figures.report([
        figures.row("unit stems under memcheck without a failure", "%d of %d, %d tests" % (
            len(results) - len(failed), len(results), sum(len(stem.passed) for stem in results)), not failed and results, "all"),
        figures.row("errors of memcheck", errors, errors == 0, "0"),
        figures.row("tests that need a system call which memcheck does not have", sum(len(stem.unknown) for stem in results), True),
        figures.row("unit stems and tests left out, with a reason", len(omitted), not strange)], notes)


sys.exit(main())
