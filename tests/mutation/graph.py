# SPDX-License-Identifier: Apache-2.0
"""What ninja's file says about the test programs: which sources are in them, and which are in what they start."""

import collections
import os
import re


# Scripts that show what no program shows: the source, what they need of the build, and their command.
SCRIPTS = [
    ("Src/CertificateInterface/OpenSslBinding.cpp", ["lib/libVpnWfOal.so", "bin/isolate"], ["tests/api/other-openssl.sh", "{build}"]),
]


class Program:
    """A test program or script; what is learned of it when it is run without a change is kept here, too."""

    def __init__(self, name, targets, command, folder, linked, reached):
        self.name = name
        self.targets = targets  # as ninja names them
        self.command = command  # without the choice of tests
        self.folder = folder  # its tests run there, below the build
        self.linked = linked  # sources that are linked into it
        self.reached = reached  # those, and the sources of libraries and programs that it loads or starts
        self.seconds = None  # without a change; None: not measured yet
        self.left_out = []  # tests that fail without a change
        self.alone = False  # whether each test needs a process of its own
        self.passing = {}  # tests that were run by themselves without a change, and in how many seconds

    def is_script(self):
        return not self.targets[0].endswith("Test")


class Graph:
    def __init__(self, build, source):
        self.build, self.source = build, source
        self.edges = {}
        for line in (build / "build.ninja").read_text(encoding="utf-8").splitlines():
            if line.startswith("build "):
                self._add(line[len("build ") :])
        self._linked, self._reached = {}, {}

    def _add(self, line):
        outputs, _, inputs = line.partition(": ")
        rule, _, inputs = inputs.partition(" ")
        inputs, _, ordered = inputs.partition(" || ")
        edge = rule, inputs.replace(" | ", " ").split(), ordered.split()
        for output in outputs.replace(" | ", " ").split():
            self.edges[output] = edge

    def _source(self, name):
        return os.path.relpath(name, self.source) if name.startswith(f"{self.source}/") else None

    def _sources(self, name, follows, known):
        """Of what is built as `name`, by those inputs that `follows` names."""
        if name not in known:
            known[name] = set()
            if self._source(name):
                known[name].add(self._source(name))
            else:
                for part in follows(name):
                    known[name] |= self._sources(part, follows, known)
        return known[name]

    def _link_inputs(self, name):
        """Objects and archives, but no shared libraries."""
        return [part for part in self.edges.get(name, ("", [], []))[1] if not re.search(r"\.so\b", part)]

    def _all_inputs(self, name):
        _, inputs, ordered = self.edges.get(name, ("", [], []))
        return inputs + ordered

    def programs(self):
        for name, (rule, inputs, _) in sorted(self.edges.items()):
            if re.match(r"CX?X?_EXECUTABLE_LINKER", rule) and name.endswith("Test"):
                folder = next(part for part in inputs if f"{os.path.basename(name)}.dir/" in part).partition("CMakeFiles/")[0]
                yield Program(os.path.basename(name), [name], [self.build / name], folder, self._sources(name, self._link_inputs, self._linked),
                              self._sources(name, self._all_inputs, self._reached))
        for source, targets, command in SCRIPTS:
            if (self.source / source).exists():
                name = f"{os.path.basename(source)[:-4]}, by {command[0]}"
                words = [self.source / command[0], *(word.format(build=self.build) for word in command[1:])]
                yield Program(name, targets, words, "", {source}, {source})


def includers(texts):
    """For each header the sources that include it, directly or by other headers; by the end of its path."""
    named = collections.defaultdict(set)
    for file, text in texts.items():
        for included in re.findall(r'^#include "([^"]+)"', text, re.MULTILINE):
            named[os.path.basename(included)].add((included, file))

    def of(header, seen):
        for included, file in named[os.path.basename(header)]:
            if file not in seen and f"/{header}".endswith(f"/{included.lstrip('./')}"):
                seen.add(file)
                if file.endswith(".h"):
                    of(file, seen)
        return seen

    return lambda header: {file for file in of(header, set()) if file.endswith(".cpp")}
