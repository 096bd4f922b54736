# SPDX-License-Identifier: Apache-2.0
"""A copy of the sources with a build of its own, in which one mutant at a time is judged."""

import collections
import json
import os
import pathlib
import re
import shutil
import subprocess
import time

LABELS = {"unit", "platform", "services", "api"}


class Program:
    """A test program: its tests as CTest knows them, and how long they take."""

    def __init__(self, path):
        self.path = path
        self.name = os.path.basename(path)
        self.tests = []
        self.folder = None
        self.environment = {}
        self.sources = set()
        self.at_once = False  # all its tests pass in one process
        self.seconds = 0.0

    def commands(self):
        if self.at_once:
            return [[self.path, "--gtest_brief=1"]]
        return [[self.path, "--gtest_brief=1", "--gtest_filter=" + test] for test in self.tests]

    def passes(self, limit):
        for command in self.commands():
            try:
                run = subprocess.run(command, cwd=self.folder, env={**os.environ, **self.environment}, timeout=limit,
                                     stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=False)
            except subprocess.TimeoutExpired:
                return False
            if run.returncode != 0:
                return False
        return True


class Worker:
    def __init__(self, top, folder, files):
        self.source = folder / "source"
        self.build = self.source / "build"
        self.log = folder / "log"
        self._copy(top, files)
        self._build_everything(top)
        self.programs = self._programs()

    def _copy(self, top, files):
        for name in files:
            target = self.source / name
            if not target.exists() or target.read_bytes() != (top / name).read_bytes():
                target.parent.mkdir(parents=True, exist_ok=True)
                shutil.copy2(top / name, target, follow_symlinks=False)
                os.utime(target)
        for name in ("daemons", "vectors"):
            if (top / "build" / name).exists() and not (self.build / name).exists():
                shutil.copytree(top / "build" / name, self.build / name, symlinks=True)

    def _run(self, *command):
        with open(self.log, "a", encoding="utf-8") as log:
            return subprocess.run(command, cwd=self.source, stdout=log, stderr=log, check=False).returncode == 0

    def _build_everything(self, top):
        print(f"building {os.path.relpath(self.build, top)}", flush=True)
        if not self._run("cmake", "-G", "Ninja", "-S", ".", "-B", str(self.build), "-DCMAKE_BUILD_TYPE=Debug",
                         "-DCMAKE_CXX_FLAGS_DEBUG=-O0", "-DWFOAL_WERROR=OFF") or not self._run("ninja", "-C", str(self.build)):
            raise SystemExit(f"the sources are not built, see {self.log}")

    def _programs(self):
        """The test programs that pass, the quick ones first."""
        listing = subprocess.run(["ctest", "--test-dir", self.build, "--show-only=json-v1"], check=True, capture_output=True, text=True)
        programs = {}
        for test in json.loads(listing.stdout)["tests"]:
            properties = {entry["name"]: entry["value"] for entry in test["properties"]}
            command = test.get("command", [""])
            if not LABELS & set(properties.get("LABELS", [])) or not any("--gtest_filter=" in word for word in command):
                continue
            program = programs.setdefault(command[0], Program(command[0]))
            program.tests.append(test["name"])
            program.folder = properties.get("WORKING_DIRECTORY")
            program.environment.update(entry.split("=", 1) for entry in properties.get("ENVIRONMENT", []))
        for program in programs.values():
            program.sources = self._sources(program)
        return list(programs.values())

    def _sources(self, program):
        inputs = subprocess.run(["ninja", "-C", self.build, "-t", "inputs", os.path.relpath(program.path, self.build)],
                                check=True, capture_output=True, text=True).stdout.split()
        sources = set()
        for name in inputs:
            path = pathlib.Path(self.build, name)
            if path.suffix == ".cpp" and path.is_relative_to(self.source):
                sources.add(str(path.relative_to(self.source)))
        return sources

    def _measure(self, program):
        """Whether the program passes without a change, and in which way; measured when it is first needed."""
        if program.seconds:
            return
        for at_once in (True, False):
            program.at_once = at_once
            started = time.monotonic()
            if program.passes(120):
                program.seconds = time.monotonic() - started
                return
        program.seconds = float("inf")

    def _linked_to(self, file):
        """The nearest by name first, and then those that are linked to the fewest sources."""
        stem = pathlib.Path(file).stem
        def distance(program):
            words = set(re.findall("[A-Z][a-z0-9]*", stem)) & set(re.findall("[A-Z][a-z0-9]*", program.name))
            return (not program.name.startswith(stem), -len(words), len(program.sources))
        return sorted((program for program in self.programs if file in program.sources), key=distance)

    def judge(self, mutant, text):
        target = self.source / mutant.file
        programs = self._linked_to(mutant.file)
        for program in programs:
            self._measure(program)
        target.write_text(mutant.apply(text))
        try:
            return self._outcome([program for program in programs if program.seconds != float("inf")])
        finally:
            target.write_text(text)

    def _outcome(self, programs):
        for program in programs:
            if not self._run("ninja", "-C", str(self.build), os.path.relpath(program.path, self.build)):
                return "not compiled"
            if not program.passes(10 + 5 * program.seconds):
                return "noticed"
        return "survived"
