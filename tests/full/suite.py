#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""suite.py PRESET [OPTION...]: builds a preset and runs its tests; the options go to ctest. A part of tests/full.sh."""
import os
import pathlib
import subprocess
import sys

import figures

HERE = pathlib.Path(__file__).resolve().parent


def runTests(preset, options):
    """Builds, and returns how many tests ran, were skipped and failed, and lines on both."""
    build = pathlib.Path("build", preset)
    subprocess.run(["cmake", "--preset", preset], check=True)
    subprocess.run(["cmake", "--build", "--preset", preset, "--", "-k", "0"], check=True)
    results, notes = (build / "results.xml").resolve(), build / "results.notes"
    results.unlink(missing_ok=True)
    notes.unlink(missing_ok=True)
    jobs = "-j%d" % ((os.cpu_count() or 1) + 1)  # many tests wait for something
    subprocess.run(["ctest", "--test-dir", build, jobs, "--output-on-failure", "--no-tests=error",
                    "--test-output-size-passed", "100000", "--output-junit", results, *options], check=False)
    counts = subprocess.run([HERE.parent / "devices/count-tests.py", results, preset, notes], check=True,
                            stdout=subprocess.PIPE, text=True).stdout
    return [int(count) for count in counts.split()], notes.read_text(encoding="utf-8").splitlines()


def rowsOf(preset, counts):
    run, skipped, failed = counts
    return [figures.row("tests passed, %s" % preset, "%d of %d, %d skipped" % (run - failed, run, skipped),
                        failed == 0 and run > 0, "all")]


def main():
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    counts, notes = runTests(sys.argv[1], sys.argv[2:])
    return figures.report(rowsOf(sys.argv[1], counts), notes)


if __name__ == "__main__":
    sys.exit(main())
