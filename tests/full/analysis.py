#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""analysis.py [lint|cppcheck|analyzer]...: what reads the sources instead of running them. A part of tests/full.sh.

    lint       tests/lint.sh: formatting, shellcheck, clang's warnings, clang-tidy
    cppcheck   what the release build compiles of the product; its group "style" is left to clang-tidy
    analyzer   gcc -fanalyzer on the sources in C

Each finding is mended or stands in tests/full/accepted.txt, with its reason; a line there without a finding is an error.
gcc's analyzer is made for C. gcc 12 had 119 findings on the first 36 sources in C++, all wrong: it takes a class that a
function returns for uninitialised, expects null from operator new, and reads vectors and iterators as null pointers.
"""
import collections
import json
import os
import pathlib
import re
import subprocess
import sys

import figures

ROOT = pathlib.Path.cwd()
PRODUCT = ("Src", "base", "platform", "services", "tools", "examples")
ACCEPTED = pathlib.Path("tests/full/accepted.txt")
CPPCHECK = ["cppcheck", "--quiet", "--enable=warning,performance,portability", "--std=c++17", "--library=posix",
            "--library=gnu", "--library=openssl", "--library=gtk", "-DElfW(type)=Elf64_##type",
            "--template={file}:{line}: {id}: {message}"]


def productSources():
    """The compiler's command of each source, once."""
    commands = {}
    for entry in json.loads(pathlib.Path("build/release/compile_commands.json").read_text(encoding="utf-8")):
        name = os.path.relpath(entry["file"], ROOT)
        if name.split("/")[0] in PRODUCT:
            commands.setdefault(name, entry)
    return commands


def cppcheck(commands):
    folder = ROOT / "build/full/cppcheck"
    folder.mkdir(parents=True, exist_ok=True)
    (folder / "commands.json").write_text(json.dumps(list(commands.values())), encoding="utf-8")
    run = subprocess.run([*CPPCHECK, "--project=%s" % (folder / "commands.json"), "--cppcheck-build-dir=%s" % folder, "-j2"],
                         check=False, stderr=subprocess.PIPE, text=True)
    return [line for line in run.stderr.splitlines() if line]


def analyzer(sources):
    lines = []
    for source in sources:
        run = subprocess.run(["gcc", "-std=gnu11", "-Wall", "-fanalyzer", "-Iplatform/include", "-c", source, "-o", os.devnull],
                             check=False, stderr=subprocess.PIPE, text=True)
        found = re.findall(r"^(\S+:\d+):\d+: (?:warning|error): (.*?)(?: \[-W([\w-]+)\])?$", run.stderr, re.M)
        lines += ["%s: %s: %s" % (place, check or "error", text) for place, text, check in found]
    return lines


def accepted(tool):
    """The reason of each "FILE CHECK"; the file may be a star."""
    reasons = {}
    for line in ACCEPTED.read_text(encoding="utf-8").splitlines():
        if line.startswith(tool + " "):
            place, reason = line[len(tool) + 1:].split(": ", 1)
            reasons[place] = reason
    return reasons


def judge(tool, sources, lines):
    findings = sorted({line.replace("%s/" % ROOT, "") for line in lines})
    reasons, seen, rest = accepted(tool), collections.Counter(), []
    for finding in findings:
        name, _, check = (part.strip() for part in finding.split(":", 3)[:3])
        places = [place for place in ("%s %s" % (name, check), "* " + check) if place in reasons]
        seen.update(places)
        if not places:
            rest.append(finding)
    rest += ["%s: %s has an accepted finding that is not there any more" % (ACCEPTED, place) for place in reasons if place not in seen]
    figure = "%d sources, %d findings without a reason, %d with one" % (len(sources), len(rest), sum(seen.values()))
    return figures.row({"cppcheck": "cppcheck", "analyzer": "gcc -fanalyzer"}[tool], figure, not rest, "0"), rest


def lint():
    status = subprocess.run(["tests/lint.sh"], check=False).returncode
    return figures.row("formatting, shellcheck, clang's warnings, clang-tidy", "clean" if status == 0 else "see the log",
                       status == 0, "clean")


def main():
    wanted = sys.argv[1:] or ["lint", "cppcheck", "analyzer"]
    subprocess.run(["cmake", "--preset", "release"], check=True)
    rows, notes = [], []
    for tool in wanted:
        if tool == "lint":
            rows.append(lint())
            continue
        sources = productSources() if tool == "cppcheck" else sorted(str(path) for path in pathlib.Path().glob("examples/**/*.c"))
        row, rest = judge(tool, sources, cppcheck(sources) if tool == "cppcheck" else analyzer(sources))
        rows.append(row)
        notes += rest
    return figures.report(rows, notes)


sys.exit(main())
