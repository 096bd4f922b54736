#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""fuzz.py [SECONDS] [STEM...]: runs each fuzz target that long (300), two side by side. A part of tests/full.sh."""
import concurrent.futures
import pathlib
import re
import subprocess
import sys

import figures

LOG = pathlib.Path("build/fuzz")
LAST = re.compile(r"^#(\d+)\s+\w+\s+cov: (\d+) ft: (\d+)", re.M)


def fuzz(seconds, stem):
    status = subprocess.run(["tests/fuzz/run.sh", "--built", seconds, stem], check=False, stdout=subprocess.DEVNULL).returncode
    log = (LOG / (stem + ".log")).read_text(encoding="utf-8", errors="replace")
    progress = LAST.findall(log)
    if not progress:
        return figures.row(stem, "ended with %d before the first run" % status, False, "no finding")
    runs = re.findall(r"^stat::number_of_executed_units: (\d+)", log, re.M) or [progress[-1][0]]
    figure = "{:,} runs, {} edges, {} features".format(int(runs[-1]), *progress[-1][1:])
    if status == 0:
        return figures.row(stem, figure, True, "no finding")
    found = re.findall(r"^SUMMARY: (.*)", log, re.M) or ["exit code %d" % status]
    return figures.row(stem, "%s; %s" % (figure, found[-1]), False, "no finding")


def main():
    seconds = sys.argv[1] if len(sys.argv) > 1 else "300"
    stems = sys.argv[2:] or sorted(path.stem for path in pathlib.Path("tests/fuzz").glob("*Fuzz.cpp"))
    subprocess.run(["tests/fuzz/run.sh", "--build", seconds, *stems], check=True)
    with concurrent.futures.ThreadPoolExecutor(2) as workers:
        rows = list(workers.map(lambda stem: fuzz(seconds, stem), stems))
    return figures.report(rows, ["Edges and features are libFuzzer's: what the seeds and the corpus of build/fuzz/corpus reach."])


sys.exit(main())
