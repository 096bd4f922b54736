#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""coverage.py [--counted]: runs all tests of the coverage build, and measures each folder. A part of tests/full.sh.

--counted runs none, and measures what the last run has counted. Branches are those that the source has: gcc's own, for
exceptions and where it can prove that a way is never taken, are left out.

build/coverage/uncovered.txt lists each line and branch that no test reaches, "FILE:LINE: TEXT". A line that needs no
test stands in tests/full/uncovered.txt, with the reason: "FILE: TEXT -- REASON", where a * stands for anything. So does
a branch of the verifier, of signing, import and storage; those of other sources count in the percentages alone. A reason
that begins with "by chance" is of a place that some runs reach.

After the tests the fault sweep runs, with few calls of each kind and a log that lets nothing through: it reaches what
is done about calls that fail. What it finds is the part "faults" to say.

Left out are the tests that only read or compile sources, or build trees of their own: nothing that is counted runs in
them. The rows of tests/devices.sh and the packages are no tests of this build at all.
"""
import collections
import json
import os
import pathlib
import re
import subprocess
import sys

import figures
import suite

BUILD = pathlib.Path("build/coverage")
UNCOUNTED = r"^(AbiGuard|Demo\.Build|Full|HeadersAlone\..*|Layering|Mutation)$"
ACCEPTED = pathlib.Path("tests/full/uncovered.txt")
FOLDERS = {"Src": (99, 92), "platform": (95, 85), "services": (95, 85), "base": (90, 75), "tools": (90, 75)}
HANDLER = r"\s*\} catch \("  # gcc compares an exception's type again, where only that type arrives
CERTIFICATES = "Src/CertificateInterface/"
EACH_BRANCH = {
    "verifier": [CERTIFICATES + name for name in ("ServerVerification", "ChainCheck", "ChainVerdict", "CheckedLookup", "OpenSslBinding")],
    "signing": [CERTIFICATES + "CertElement"],
    "import": [CERTIFICATES + name for name in ("Pkcs12Import", "ImportReply", "StagingFolder", "PemPassword")],
    "storage": ["Src/Storage" + name for name in ("Interface", "Listing", "Locations", "Mapping")],
}
STRICT = {stem for stems in EACH_BRANCH.values() for stem in stems}


def runTests():
    """Returns rows and notes on the tests, with the number of messages of processes that could not write their counters."""
    errors = (BUILD / "counter-errors.log").resolve()
    subprocess.run(["cmake", "--preset", "coverage"], check=True)
    for path in [errors, *BUILD.rglob("*.gcda")]:
        path.unlink(missing_ok=True)
    errors.touch()
    errors.chmod(0o666)
    # Some processes are other users. What a folder says of new files counts, whatever a test's umask is.
    subprocess.run(["setfacl", "-R", "-m", "u::rwX,g::rwX,o::rwX,d:u::rwx,d:g::rwx,d:o::rwx", BUILD], check=True)
    os.environ["GCOV_ERROR_FILE"] = str(errors)
    counts, notes = suite.runTests("coverage", ["-E", UNCOUNTED])
    environment = {**os.environ, "VKLOG_LEVEL": "0", "FIGURES": os.devnull}
    subprocess.run(["tests/faults/run", BUILD, "--dense", "3", "--no-glib"], env=environment, check=False)
    lines = len(errors.read_text(encoding="utf-8", errors="replace").splitlines())
    return [*suite.rowsOf("coverage", counts), figures.row("errors in writing counters", lines, lines == 0, "0")], notes


def count():
    """Each file's lines, {number: (text, count, [count of each branch])}."""
    report = BUILD / "coverage.json"
    filters = [word for folder in FOLDERS for word in ("--filter", folder + "/")]
    subprocess.run(["gcovr", "--root", ".", "--object-directory", BUILD, "-j2", "--exclude-throw-branches",
                    "--exclude-unreachable-branches", "--exclude-branches-by-pattern", HANDLER, *filters, "--json",
                    report, BUILD], check=True)
    files = {}
    for entry in json.loads(report.read_text(encoding="utf-8"))["files"]:
        texts = pathlib.Path(entry["file"]).read_text(encoding="utf-8").splitlines()
        lines = files.setdefault(entry["file"], {})
        for line in entry["lines"]:
            if not line.get("gcovr/noncode"):
                number = line["line_number"]
                lines[number] = (texts[number - 1].strip(), line["count"], [branch["count"] for branch in line["branches"]])
    return files


def shareOf(lines):
    """Covered and all lines, covered and all branches."""
    branches = [count for _, _, counts in lines for count in counts]
    return sum(count > 0 for _, count, _ in lines), len(lines), sum(count > 0 for count in branches), len(branches)


def percent(covered, total):
    return 100 * covered / total if total else 100


def folderRow(folder, files):
    lines = [line for name, held in files.items() if name.startswith(folder + "/") for line in held.values()]
    coveredLines, allLines, coveredBranches, allBranches = shareOf(lines)
    byLine, byBranch = percent(coveredLines, allLines), percent(coveredBranches, allBranches)
    limits = FOLDERS[folder]
    return figures.row(folder, "%.1f %% of %d lines, %.1f %% of %d branches" % (byLine, allLines, byBranch, allBranches),
                       allLines and byLine >= limits[0] and byBranch >= limits[1], "%d %% and %d %%" % limits)


def branchRow(name, stems, files, accepted):
    held = [(path, line) for path, lines in files.items() if os.path.splitext(path)[0] in stems for line in lines.values()]
    _, _, covered, total = shareOf([line for _, line in held])
    explained = sum(branches.count(0) for path, (text, _, branches) in held if accepted.find(path, text))
    figure = "%d of %d" % (covered, total) + (", %d with a reason" % explained if explained else "")
    return figures.row("branches of " + name, figure, covered + explained == total > 0, "all")


class Accepted:
    """The places that need no test."""

    def __init__(self):
        self.used = collections.Counter()
        self.reasons = dict(line.split(" -- ", 1) for line in ACCEPTED.read_text(encoding="utf-8").splitlines()
                            if " -- " in line and not line.startswith("#"))
        self.patterns = {line: re.compile(".*".join(map(re.escape, line.split("*")))) for line in self.reasons}

    def find(self, path, text):
        """The entry of the place, or None."""
        place = "%s: %s" % (path, text)
        return next((entry for entry, pattern in self.patterns.items() if pattern.fullmatch(place)), None)

    def unused(self):
        return [entry for entry, reason in self.reasons.items()
                if not self.used[entry] and not reason.startswith("by chance")]


def uncovered(files, accepted):
    rest, unexplained = [], 0
    for name, lines in sorted(files.items()):
        for number, (text, count, branches) in sorted(lines.items()):
            if count > 0 and all(branches):
                continue
            entry = accepted.find(name, text)
            accepted.used[entry] += 1
            if entry is None:
                ways = "" if count == 0 else " (%d of %d ways)" % (sum(way > 0 for way in branches), len(branches))
                rest.append("%s:%d: %s%s" % (name, number, text, ways))
                unexplained += count == 0 or os.path.splitext(name)[0] in STRICT
    (BUILD / "uncovered.txt").write_text("".join(line + "\n" for line in rest), encoding="utf-8")
    notes = ["%s has a place that is covered or gone: %s." % (ACCEPTED, entry) for entry in accepted.unused()]
    explained = sum(accepted.used.values()) - len(rest)
    row = figures.row("places that need a test or a reason", "%d have none, %d have a reason" % (unexplained, explained),
                      unexplained == 0 and not notes, "0 have none")
    return row, notes


def main():
    rows, notes = ([], []) if "--counted" in sys.argv else runTests()
    files = count()
    rows += [folderRow(folder, files) for folder in FOLDERS]
    accepted = Accepted()
    rows += [branchRow(name, stems, files, accepted) for name, stems in EACH_BRANCH.items()]
    row, more = uncovered(files, accepted)
    return figures.report([*rows, row], notes + more)


sys.exit(main())
