#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""endurance.py [PART...]: runs tests/endurance/run.sh on the release build. A part of tests/full.sh."""
import subprocess
import sys

import figures


def main():
    subprocess.run(["cmake", "--preset", "release"], check=True)
    subprocess.run(["cmake", "--build", "--preset", "release", "--target", "netconfigEndurance", "isolate"], check=True)
    run = subprocess.run(["tests/endurance/run.sh", "build/release", *sys.argv[1:]], check=False, stdout=subprocess.PIPE, text=True)
    print(run.stdout)
    rows = []
    for line in run.stdout.splitlines()[2:]:
        name, rounds, failures, _, checked = line.split(None, 4)
        rows.append(figures.row("%s: %s" % (name, checked), "%s rounds, %s failures" % (rounds, failures), failures == "0",
                                "0 failures"))
    rows.append(figures.row("exit code", run.returncode, run.returncode == 0, "0"))
    return figures.report(rows)


sys.exit(main())
