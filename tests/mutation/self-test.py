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
    # It understands what GoogleTest does. One test only passes in a process of its own, one never does.
    "SmallTest.cpp": """#include <cstdio>
#include <string>
int atMostNine(int value);
static bool sIsUsed = false;
static bool first() { sIsUsed = true; return atMostNine(3) == 3; }
static bool alone() { return !sIsUsed && atMostNine(1) == 1 && atMostNine(10) == 9 && atMostNine(12) == 9; }
static bool broken() { return false; }
int main(int count, char** arguments)
{
    std::string chosen = "*", left;
    for (int i = 1; i < count; ++i) {
        const std::string argument = arguments[i];
        if (argument == "--gtest_list_tests") return std::puts("Small.\\n  First\\n  Alone\\n  Broken") < 0;
        if (argument.rfind("--gtest_filter=", 0) != 0) continue;
        chosen = argument.substr(15, argument.find('-', 15) - 15);
        left = argument.substr(15 + chosen.size());
    }
    const struct { const char* name; bool (*passes)(); } tests[] = {{"Small.First", first}, {"Small.Alone", alone}, {"Small.Broken", broken}};
    bool all = true;
    for (const auto& test : tests) {
        if ((chosen != "*" && chosen.find(test.name) == std::string::npos) || left.find(test.name) != std::string::npos) continue;
        std::printf("[ RUN      ] %s\\n", test.name);
        const bool passes = test.passes();
        std::printf("[  %s ] %s (0 ms)\\n", passes ? "     OK" : "FAILED ", test.name);
        all = all && passes;
    }
    return all ? 0 : 1;
}
""",
    "tests/mutation/survivors.txt": "# none\n",
}

KILLED = {
    "early return: int atMostNine(int value) {[[ => return {};]] if (value > 9) return 9;": "First",
    "negated condition: if ([[value > 9 => !(value > 9)]]) return 9;": "First",
    "other constant: if (value > [[9 => 10]]) return 9;": "Alone",
    "other constant: if (value > 9) return [[9 => 10]];": "Alone",
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


def remember(top):
    """The test that is remembered comes first, but only if it passes without a change."""
    path = top / "tests/mutation/killers.txt"
    lines = path.read_text().splitlines()
    check(len(lines) == 3 + len(KILLED), f"what is remembered: {lines}")
    path.write_text("\n".join(line.replace("Small.Alone", "Small.Broken").replace("Small.First", "Small.Alone") for line in lines) + "\n")
    told = run(top, "--again", "--stages", "1")[1]
    check(told.count("by SmallTest: Small.Alone") == 4, f"with other tests remembered: {told}")
    run(top, "--record")
    check(path.read_text().count("SmallTest: Small.Alone\n") == 4, f"what is remembered then: {path.read_text()}")


def main():
    with tempfile.TemporaryDirectory() as folder:
        top = pathlib.Path(folder) / "tree"
        for name, text in FILES.items():
            (top / name).parent.mkdir(parents=True, exist_ok=True)
            (top / name).write_text(text)
        (top / ".gitignore").write_text("/build/\n")
        subprocess.run(["git", "init", "-q", top], check=True)

        interrupt(top)
        code, told, rows = run(top, "--record")
        print(told)
        check(code == 1, f"one survivor of five: exit code {code}")
        check(rows == [{"what": "mutants of Src/ killed", "figure": "4 of 5, 80.0 %", "limit": "95 %", "ok": False}], f"figures: {rows}")
        entries = [json.loads(line) for line in (top / "build/mutation/results.jsonl").read_text().splitlines()]
        judged = [(entry["result"], entry["mutant"].split(": ", 1)[1], entry["by"]) for entry in entries]
        expected = [("killed", name, f"SmallTest: Small.{test}") for name, test in KILLED.items()] + 3 * [("survived", SURVIVES, "")]  # in each stage
        check(sorted(judged) == sorted(expected), f"judged, each once: {judged}")
        check(f"Src/Small.cpp:3: {SURVIVES}" in told, "the survivor is named")

        accept(top, SURVIVES)
        code, told, rows = run(top)
        check((code, rows[0]["figure"]) == (0, "4 of 4, 100.0 %"), f"with the survivor accepted: {code}, {rows}")
        check(told.count(" 0 of 5 mutants are to be judged") == 3, f"nothing is judged again: {told}")

        accept(top, sorted(KILLED)[0])
        check("is listed as a survivor, but SmallTest: Small.First notices it" in run(top)[1], "an accepted mutant that is noticed")
        accept(top, "negated condition: if (true)")
        code, told, rows = run(top, "Src/Small.cpp")
        check(code == 1 and "but there is no such mutant" in told, "an accepted mutant that is not there")
        check(rows[-1] == {"what": "wrong entries of tests/mutation/survivors.txt", "figure": "1", "limit": "0", "ok": False}, f"figures: {rows}")

        remember(top)

        # What was a survivor is judged again when a test has changed.
        (top / "tests/mutation/survivors.txt").write_text("# none\n")
        (top / "SmallTest.cpp").write_text(FILES["SmallTest.cpp"].replace("3) == 3", "4) == 4"))
        check("1 of 5 mutants are to be judged" in run(top)[1], "survivors are judged again")

        FILES["SmallTest.cpp"] = FILES["SmallTest.cpp"].replace("3) == 3", "4) == 4")
        for name in set(FILES) - {"tests/mutation/survivors.txt"}:
            check((top / name).read_text() == FILES[name], f"{name} was changed")
        left = subprocess.run(["git", "ls-files", "-o", "--exclude-standard"], cwd=top, capture_output=True, text=True, check=True).stdout.split()
        check(sorted(left) == sorted([*FILES, "tests/mutation/killers.txt", ".gitignore"]), f"files of the tree: {left}")
    print("\n".join(faults) or "all as expected")
    return 1 if faults else 0


if __name__ == "__main__":
    missing = [name for name in ("git", "cmake", "ninja", "unshare", "prlimit") if not shutil.which(name)]
    if missing:
        print(f"skipped: {missing[0]} is not there")
        sys.exit(77)
    sys.exit(main())
