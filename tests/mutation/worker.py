# SPDX-License-Identifier: Apache-2.0
"""A copy of the sources with a build of its own, in which one mutant at a time is judged."""

import collections
import json
import os
import pathlib
import re
import shutil
import signal
import subprocess
import threading
import time

import graph

CONFIGURATION = ["-DCMAKE_BUILD_TYPE=Debug", "-DCMAKE_CXX_FLAGS_DEBUG=-O0 -w", "-DCMAKE_C_FLAGS_DEBUG=-O0 -w", "-DWFOAL_WERROR=OFF",
                 "-DWFOAL_QUICK_TESTS=ON", "-DCMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE=PRE_TEST"]
# Stages, each of which judges what the one before has not noticed: of the programs that the source is linked to, or that
# load or start what it is linked to, the few that are nearest; the others; and those that test more than one part.
WORD = re.compile(r"[A-Za-z_]\w{4,}")
INCLUDE = re.compile(r'^#include "(?:[^"]*/)?([^"/]+)"', re.MULTILINE)
NEAR, PART, WHOLE = STAGES = 1, 2, 3
NEAREST = 4  # programs
BRIEFLY = 2, 20  # programs and seconds for a survivor that is accepted
SECONDS = {NEAR: 60, PART: 120, WHOLE: 60}  # that the programs of a stage may take without a change
WHOLE_PROGRAMS = ("tests/tools", "tests/examples", "tests/integration")  # what tests more than one part


def descendants_of(pid):
    """Of a process: the processor time that those that live have used, and whether one of them wants more."""
    parents, states, used = {}, {}, {}
    for folder in pathlib.Path("/proc").glob("[0-9]*"):
        try:
            fields = (folder / "stat").read_text(encoding="utf-8", errors="replace").rpartition(") ")[2].split()
        except OSError:
            continue
        parents[int(folder.name)], states[int(folder.name)] = int(fields[1]), fields[0]
        used[int(folder.name)] = sum(map(int, fields[11:15])) / os.sysconf("SC_CLK_TCK")
    family = {pid}
    while True:
        more = {child for child, parent in parents.items() if parent in family} - family
        if not more:
            return sum(used.get(one, 0) for one in family), any(states.get(one) in ("R", "D") for one in family)
        family |= more


class Children:
    """The processes that run now, so that a signal can end them."""

    def __init__(self):
        self.running = set()
        self.lock = threading.Lock()

    def run(self, command, output, limit=None, **how):
        """The exit code; None when it does not end."""
        with self.lock:
            child = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=output, stderr=output, start_new_session=True, **how)
            self.running.add(child)
        try:
            return self._wait(child, limit)
        finally:
            with self.lock:
                self.running.discard(child)

    def _wait(self, child, limit):
        """After the limit a child is ended when it waits, or has had the processor for a third of the limit; on a machine
        that is busy with other things it may only be late."""
        deadline, quiet = limit, 0
        while True:
            try:
                return child.wait(deadline)
            except subprocess.TimeoutExpired:
                deadline = 1
            seconds, wants_more = descendants_of(child.pid)
            quiet = 0 if wants_more else quiet + 1
            if quiet > 5 or seconds > limit / 3:
                os.killpg(child.pid, signal.SIGKILL)
                child.wait()
                return None

    def end(self):
        with self.lock:
            for child in self.running:
                os.killpg(child.pid, signal.SIGKILL)


CHILDREN = Children()


def contained(command):
    """In a process namespace, so that nothing outlives it and it signals nothing else; with a limit for what it may use."""
    user = [] if os.geteuid() == 0 else ["--map-root-user"]
    return ["prlimit", "--core=0", "--fsize=2147483648", "--as=17179869184", "unshare", *user, "--fork", "--pid", "--kill-child", "--mount-proc", *command]


class Worker:
    def __init__(self, top, folder, files, jobs, valid_for, killers):
        self.jobs = jobs
        self.killers = killers
        self.source = folder / "source"
        self.build = self.source / "build" / "mutants"
        self.log = folder / "log"
        self.output = folder / "output"
        self.texts = {}
        self.tried = collections.defaultdict(set)  # programs that have not noticed a mutant
        self.kills = collections.defaultdict(collections.Counter)  # of each program, for each source
        self.words, self.includes, self.uses = {}, {}, collections.Counter()
        self._copy(top, files)
        self._configure()
        self.programs = list(graph.Graph(self.build, self.source).programs())
        self._learn_words()
        self.includers = graph.includers(self.texts)
        self.valid_for = valid_for
        self.measured = folder / "measured.json"
        kept = json.loads(self.measured.read_text()) if self.measured.exists() else {}
        for program in self.programs if kept.get("for") == valid_for else ():
            program.seconds, program.left_out, program.alone, program.passing = kept["programs"].get(program.name, (None, [], False, {}))

    def _copy(self, top, files):
        """Only what differs, so that ninja builds only that. This also undoes a change that a killed run has left."""
        for name in files:
            target = self.source / name
            if not target.exists() or target.read_bytes() != (top / name).read_bytes():
                target.parent.mkdir(parents=True, exist_ok=True)
                shutil.copyfile(top / name, target, follow_symlinks=False)
                shutil.copymode(top / name, target)
            if name.endswith((".cpp", ".h")):
                self.texts[name] = (top / name).read_text(encoding="utf-8")
        for name in ("daemons", "vectors"):
            if (top / "build" / name).exists() and not (self.source / "build" / name).exists():
                shutil.copytree(top / "build" / name, self.source / "build" / name, symlinks=True)

    def _logged(self, *command, **variables):
        with open(self.log, "a", encoding="utf-8") as log:
            return CHILDREN.run(command, log, cwd=self.source, env={**os.environ, **variables}) == 0

    def _configure(self):
        linker = [f"-DCMAKE_{kind}_LINKER_FLAGS=-fuse-ld=lld" for kind in ("EXE", "SHARED")] if shutil.which("ld.lld") else []
        if not self._logged("cmake", "-G", "Ninja", "-S", ".", "-B", str(self.build), *CONFIGURATION, *linker):
            raise SystemExit(f"the copy cannot be configured, see {self.log}")

    def _builds(self, *programs, **variables):
        targets = [target for program in programs for target in program.targets]
        return self._logged("ninja", "-j", str(self.jobs), "-C", str(self.build), *targets, **variables)

    def _run(self, program, tests, limit, *flags):
        """The exit code, and the tests that failed; of those that did not end the last one."""
        if not program.alone:
            return self._run_once(program, ":".join(tests), limit, *flags)
        code, failed = 0, []
        for test in self._all_tests(program) if tests == ["*"] else tests:
            one, _ = self._run_once(program, test, limit)
            if one != 0:
                code, failed = one, [*failed, test]
                if "--gtest_fail_fast" in flags:
                    break
        return code, failed

    def _run_once(self, program, tests, limit, *flags):
        choice = [f"--gtest_filter={tests}-{':'.join(program.left_out)}", *flags]
        code, text = self._output_of(program, limit, *([] if program.is_script() else choice))
        failed = re.findall(r"^\[  FAILED  \] (\w[\w/.]*)(?:,| \()", text, re.MULTILINE)
        begun = re.findall(r"^\[ RUN      \] (\w[\w/.]*)$", text, re.MULTILINE)
        if code != 0 and begun and not re.search(r"^\[ +(?:OK|FAILED|SKIPPED) +\] " + re.escape(begun[-1]) + r"\b", text, re.MULTILINE):
            failed.append(begun[-1])
        return code, list(dict.fromkeys(failed))

    def _output_of(self, program, limit, *arguments):
        with open(self.output, "w+", encoding="utf-8", errors="replace") as output:
            code = CHILDREN.run(contained([*map(str, program.command), *arguments]), output, limit, cwd=self.build / program.folder)
            output.seek(0)
            return code, output.read()

    def _all_tests(self, program):
        """Without those that are left out."""
        tests, suite = [], ""
        for line in self._output_of(program, 60, "--gtest_list_tests")[1].splitlines():
            name = line.split("#")[0].strip()
            if line.startswith("  "):
                tests.append(suite + name)
            elif name.endswith("."):
                suite = name
        return [test for test in tests if test not in program.left_out and ".DISABLED_" not in test]

    def _measure(self, program):
        self._try_without_change(program)
        self._keep_measured()

    def _keep_measured(self):
        known = {one.name: (one.seconds, one.left_out, one.alone, one.passing) for one in self.programs if one.seconds is not None or one.passing}
        self.measured.write_text(json.dumps({"for": self.valid_for, "programs": known}))

    def _try_without_change(self, program):
        """What fails without a change is left out from now on, unless it passes in a process of its own; what cannot be
        run is not used."""
        program.seconds = float("inf")
        if not self._builds(program):
            raise SystemExit(f"{program.name} is not built, see {self.log}")
        for _ in range(4):
            started = time.monotonic()
            code, failed = self._run(program, ["*"], max(SECONDS.values()))
            if code == 0:
                program.seconds = max(time.monotonic() - started, 0.01)
                return
            if code is None or not failed:
                break
            alone = [test for test in failed if self._run_once(program, test, 60)[0] == 0]
            program.alone = program.alone or bool(alone)
            program.left_out += [test for test in failed if test not in alone]
        how = "takes too long" if code is None else "does not pass"
        print(f"{program.name} {how} without a change, only tests of it that are remembered are used", flush=True)

    def _kills(self, program, again=True):
        """Which test fails, now that there is a change. With `again` a program that fails once only is not believed."""
        limit = 15 + 5 * program.seconds
        code, failed = self._run(program, ["*"], limit, "--gtest_fail_fast")
        if code is None:
            return failed[-1] if failed else "time-out"
        if code == 0:
            return None
        # By itself the test is quicker, but it may need those before it to fail.
        if not again or (failed and self._run(program, failed, limit)[0] != 0) or self._run(program, ["*"], limit, "--gtest_fail_fast")[0] != 0:
            return failed[0] if failed else f"exit code {code}"
        return None

    def _remembered(self, mutant):
        """The program and the test that have noticed this mutant before; no test: all of them."""
        name, test = self.killers.of(mutant)
        program = next((one for one in self.programs if one.name == name), None)
        return program, test if program and "." in test else None

    def _check_remembered(self, mutants):
        """What is remembered only counts when it passes without a change."""
        wanted = collections.defaultdict(set)
        for program, test in map(self._remembered, mutants):
            if test and test not in program.passing:
                wanted[program].add(test)
            elif program and not test and program.seconds is None:
                self._measure(program)
        if wanted and not self._builds(*wanted):
            raise SystemExit(f"{', '.join(program.name for program in wanted)}: not built, see {self.log}")
        for program, tests in wanted.items():
            started = time.monotonic()
            code, _ = self._run(program, sorted(tests), 120)
            if code == 0:
                program.passing.update(dict.fromkeys(tests, time.monotonic() - started))
            for test in tests if code != 0 else ():
                started = time.monotonic()
                if self._run_once(program, test, 60)[0] == 0:
                    program.passing[test] = time.monotonic() - started
        self._keep_measured()

    def _remembered_kills(self, mutant):
        """What noticed it before, if that notices it again."""
        program, test = self._remembered(mutant)
        if program is None or (test not in program.passing if test else program.seconds == float("inf")) or not self._builds(program, CCACHE_DISABLE="1"):
            return None
        if test is None:
            return self._kills(program, again=False)
        return test if self._run_once(program, test, 10 + 5 * program.passing[test])[0] != 0 else None

    def _programs_of(self, file, stage):
        sources = self.includers(file) if file.endswith(".h") else {file}
        return [program for program in self.programs if program.reached & sources and program.folder.startswith(WHOLE_PROGRAMS) == (stage == WHOLE)]

    def _in_order(self, mutant, programs):
        """First what is named like the source; then what includes its header; then what names most of the rare words of the
        changed function, and noticed most other changes of the source."""
        stem, text = pathlib.Path(mutant.file).stem, self.texts[mutant.file]
        begin, end = text.rfind("\n}\n", 0, mutant.start) + 1, text.find("\n}\n", mutant.end)
        words = WORD.findall(text[begin : end if end >= 0 else len(text)])

        def place(program):
            known = sum(1 / self.uses[word] for word in set(words) & self.words[program.name])
            nearness = not program.name.startswith(stem), f"{stem}.h" not in self.includes[program.name]
            return *nearness, -known * (1 + self.kills[mutant.file][program.name]), program.seconds or 0

        return sorted(programs, key=place)

    def _learn_words(self):
        """Which words the sources of each program have, without those of test kits; and how many programs have a word."""
        for program in self.programs:
            own = [file for file in program.linked if file.startswith("tests/") and not file.startswith(("tests/support", "tests/fakes"))]
            self.words[program.name] = {word for file in own for word in WORD.findall(self.texts[file])}
            self.includes[program.name] = {name for file in own for name in INCLUDE.findall(self.texts[file])}
            self.uses.update(self.words[program.name])

    def _judge(self, mutant, programs, stage, briefly):
        self._change(mutant)
        if stage == NEAR:
            noticed = self._remembered_kills(mutant)
            if noticed:
                return "killed", f"{self._remembered(mutant)[0].name}: {noticed}"
        count, limit = (BRIEFLY if briefly else (NEAREST if stage == NEAR else None, SECONDS[stage]))
        for program in self._in_order(mutant, programs)[:count]:
            if program.name in self.tried[mutant]:
                continue
            if program.seconds is None:
                self._restore(mutant.file)
                self._measure(program)
                self._change(mutant)
            if program.seconds > limit:
                continue
            limit -= program.seconds
            if not self._builds(program, CCACHE_DISABLE="1"):
                return "not built", ""
            noticed = self._kills(program)
            if noticed:
                self.kills[mutant.file][program.name] += 1
                return "killed", f"{program.name}: {noticed}"
            self.tried[mutant].add(program.name)
        return "survived", ""

    def judge(self, file, slots, stage, accepted, keep):
        """Judges of each slot the first mutant that is built; keep(mutant, result, by) is called for each."""
        programs = self._programs_of(file, stage)
        try:
            if stage == NEAR:
                self._restore(file)
                self._check_remembered([mutant for slot in slots for mutant in slot])
            for slot in slots:
                for mutant in slot:
                    result, by = self._judge(mutant, programs, stage, accepted(mutant))
                    keep(mutant, result, by)
                    if result != "not built":
                        break
        finally:
            self._restore(file)

    def _change(self, mutant):
        (self.source / mutant.file).write_text(mutant.apply(self.texts[mutant.file]), encoding="utf-8")

    def _restore(self, file):
        (self.source / file).write_text(self.texts[file], encoding="utf-8")
