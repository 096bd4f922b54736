#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""self-test.py: a source whose mutants are known is judged by tests/mutation/run, interrupted, gone on with, and compared."""

import json
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import tempfile
import time

RUN = pathlib.Path(__file__).resolve().parent / "run"

FILES = {
    "CMakeLists.txt": """cmake_minimum_required(VERSION 3.25)
project(Small LANGUAGES CXX)
add_library(small STATIC Src/Small.cpp)
add_executable(SmallTest SmallTest.cpp)
target_link_libraries(SmallTest small)
set_target_properties(SmallTest PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
""",
    "Src/Small.cpp": """int atMostNine(int value)
{
    if (value > 9) return 9;
    return value;
}
""",
    "SmallTest.cpp": """int atMostNine(int value);
int main() { return atMostNine(3) == 3 && atMostNine(10) == 9 && atMostNine(12) == 9 ? 0 : 1; }
""",
    "tests/mutation/survivors.txt": "# none\n",
}

KILLED = {
    "early return: int atMostNine(int value) {[[ => return {};]] if (value > 9) return 9;",
    "negated condition: if ([[value > 9 => !(value > 9)]]) return 9;",
    "other constant: if (value > [[9 => 10]]) return 9;",
    "other constant: if (value > 9) return [[9 => 10]];",
}
SURVIVES = "other comparison: if (value [[> => >=]] 9) return 9;"

faults = []


def check(holds, what):
    if not holds:
        faults.append(what)


def run(top, *arguments):
    figures = top.parent / "figures.json"
    done = subprocess.run([RUN, "--workers", "1", *arguments], env={**os.environ, "MUTATION_TOP": str(top), "FIGURES": str(figures)},
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
    return done.returncode, done.stdout, json.loads(figures.read_text())["rows"] if figures.exists() else None


def interrupt(top):
    """Ends a run when it has judged something."""
    results = top / "build/mutation/results.jsonl"
    with subprocess.Popen([RUN, "--workers", "1"], env={**os.environ, "MUTATION_TOP": str(top)}, stdout=subprocess.DEVNULL) as running:
        while running.poll() is None and not (results.exists() and results.read_text()):
            time.sleep(0.02)
        running.send_signal(signal.SIGTERM)
        check(running.wait() == 128 + signal.SIGTERM, f"an interrupted run ends with {running.returncode}")


def accept(top, name):
    (top / "tests/mutation/survivors.txt").write_text(f"Src/Small.cpp: {name}\n    A reason.\n")


def main():
    with tempfile.TemporaryDirectory() as folder:
        top = pathlib.Path(folder) / "tree"
        for name, text in FILES.items():
            (top / name).parent.mkdir(parents=True, exist_ok=True)
            (top / name).write_text(text)
        (top / ".gitignore").write_text("/build/\n")
        subprocess.run(["git", "init", "-q", top], check=True)

        interrupt(top)
        code, told, rows = run(top)
        print(told)
        check(code == 1, f"one survivor of five: exit code {code}")
        check(rows == [{"what": "mutants of Src/ killed", "figure": "4 of 5, 80.0 %", "limit": "95 %", "ok": False}], f"figures: {rows}")
        entries = [json.loads(line) for line in (top / "build/mutation/results.jsonl").read_text().splitlines()]
        judged = [(entry["result"], entry["mutant"].split(": ", 1)[1]) for entry in entries]
        expected = [("killed", name) for name in KILLED] + 3 * [("survived", SURVIVES)]  # in each stage
        check(sorted(judged) == sorted(expected), f"judged, each once: {judged}")
        check(f"Src/Small.cpp:3: {SURVIVES}" in told, "the survivor is named")

        accept(top, SURVIVES)
        code, told, rows = run(top)
        check((code, rows[0]["figure"]) == (0, "4 of 4, 100.0 %"), f"with the survivor accepted: {code}, {rows}")
        check(told.count(" 0 of 5 mutants are to be judged") == 3, f"nothing is judged again: {told}")

        accept(top, sorted(KILLED)[0])
        check("is listed as a survivor, but SmallTest: exit code 1 notices it" in run(top)[1], "an accepted mutant that is noticed")
        accept(top, "negated condition: if (true)")
        code, told, rows = run(top, "Src/Small.cpp")
        check(code == 1 and "but there is no such mutant" in told, "an accepted mutant that is not there")
        check(rows[-1] == {"what": "wrong entries of tests/mutation/survivors.txt", "figure": "1", "limit": "0", "ok": False}, f"figures: {rows}")

        # What was a survivor is judged again when a test has changed.
        (top / "tests/mutation/survivors.txt").write_text("# none\n")
        (top / "SmallTest.cpp").write_text(FILES["SmallTest.cpp"].replace("3) == 3", "4) == 4"))
        check("1 of 5 mutants are to be judged" in run(top)[1], "survivors are judged again")

        FILES["SmallTest.cpp"] = FILES["SmallTest.cpp"].replace("3) == 3", "4) == 4")
        for name in set(FILES) - {"tests/mutation/survivors.txt"}:
            check((top / name).read_text() == FILES[name], f"{name} was changed")
        left = subprocess.run(["git", "ls-files", "-o", "--exclude-standard"], cwd=top, capture_output=True, text=True, check=True).stdout.split()
        check(sorted(left) == sorted([*FILES, ".gitignore"]), f"files of the tree: {left}")
    print("\n".join(faults) or "all as expected")
    return 1 if faults else 0


if __name__ == "__main__":
    missing = [name for name in ("git", "cmake", "ninja", "unshare", "prlimit") if not shutil.which(name)]
    if missing:
        print(f"skipped: {missing[0]} is not there")
        sys.exit(77)
    sys.exit(main())
