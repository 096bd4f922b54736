#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""guard.py [--write] [--only NAME]... [--twice NAME] PROGRAM [FIGURES]: no key operation has become slower.
guard.py --counted FILE [FIGURES]

Counts the instructions of each operation of PROGRAM (KeyOperations) with callgrind and compares them with FIGURES, which
is tests/instructions/figures.txt unless named. Fails when one has grown by more than 10 %. Instructions are the same
whatever else the machine does, but they depend on the compiler and on the libraries: with others than those of FIGURES
nothing is compared (exit code 77, the reason on the last line). --write records the present figures instead. --only
counts some operations. --twice counts two runs of one. --counted compares what --write recorded earlier.
"""
import argparse
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

GROWTH_ALLOWED = 0.10
# Which code memcpy() and the ciphers run is not to depend on the processor.
PLAIN_PROCESSOR = {
    "GLIBC_TUNABLES": "glibc.cpu.hwcaps=-AVX,-AVX2,-AVX512F,-AVX_Fast_Unaligned_Load,-BMI2,-ERMS,-MOVBE,-RTM",
    "OPENSSL_ia32cap": "0:0",
}


def skip(reason):
    print("skipped: " + reason)
    sys.exit(77)


def output(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def packagesOf(libraries):
    """Names and versions of the packages that bring them, which may know a library by its name from before /usr was merged."""
    names = {name for library in libraries for name in (library, re.sub("^/usr", "", library))}
    # Ends with 1 when it does not know one of the names.
    found = subprocess.run(["dpkg-query", "--search", *sorted(names)], capture_output=True, text=True).stdout
    packages = sorted({line.split(": ", 1)[0] for line in found.splitlines()})
    return output("dpkg-query", "--show", "--showformat", "${Package}:${Architecture} ${Version}\\n", *packages).splitlines()


def buildOf(program):
    """What instructions depend on: the compiler, and the packages of the libraries."""
    if not shutil.which("dpkg-query"):
        skip("which libraries these are cannot be told without dpkg-query")
    comment = output("readelf", "--string-dump", ".comment", program)
    compilers = {"compiler " + line for line in re.findall(r"\] +(.*)", comment)}
    libraries = [os.path.realpath(library) for library in re.findall(r"=> (/\S+)", output("ldd", program))]
    return compilers | {"package " + package for package in packagesOf(libraries)}


def countInstructions(program, names, twice):
    if not shutil.which("valgrind"):
        skip("there is no valgrind here")
    if not os.access("/dev/net/tun", os.W_OK):
        skip("there is no tun device for this user")
    # Next to the program: it has a private /tmp.
    with tempfile.TemporaryDirectory(prefix="callgrind.", dir=pathlib.Path(program).resolve().parent) as folder:
        command = ["valgrind", "-q", "--vgdb=no", "--tool=callgrind", "--instr-atstart=no", "--collect-atstart=no",
                   "--callgrind-out-file=%s/out.%%p" % folder, program]
        command += ["--twice", twice] if twice else []
        result = subprocess.run(command + names, env={**os.environ, **PLAIN_PROCESSOR, "VKLOG_LEVEL": "3"},
                                stdout=subprocess.PIPE, text=True)
        if result.returncode == 77:
            skip(result.stdout.strip().removeprefix("skipped: "))
        if result.returncode != 0:
            sys.exit("%s under callgrind ended with %d" % (program, result.returncode))
        counts = {}
        for dump in pathlib.Path(folder).iterdir():
            text = dump.read_text(encoding="utf-8", errors="replace")
            name = re.search(r"^desc: Trigger: Client Request: (.*)$", text, re.M)
            if name:
                counts[name[1]] = int(re.search(r"^totals: (\d+)$", text, re.M)[1])
        return counts


def readFigures(path):
    build, figures = set(), {}
    for line in path.read_text(encoding="utf-8").splitlines():
        if line.startswith(("compiler ", "package ")):
            build.add(line)
        elif line and not line.startswith("#"):
            name, count = line.rsplit(": ", 1)
            figures[name] = int(count)
    return build, figures


def writeFigures(path, build, figures):
    lines = ["# Instructions of key operations, and what they were counted with. Written by guard.py --write."]
    lines += sorted(build)
    lines += ["%s: %d" % entry for entry in sorted(figures.items())]
    path.write_text("\n".join(lines) + "\n", encoding="utf-8")


def compare(recorded, counted):
    """Prints a table; true when no operation has grown too much."""
    good = True
    print("%-40s %13s %13s %8s" % ("instructions", "recorded", "now", "growth"))
    for name in sorted(recorded.keys() | counted.keys()):
        if name not in recorded or name not in counted:
            good = False
            print("%-40s %s" % (name, "NOT RECORDED" if name in counted else "NOT COUNTED"))
            continue
        growth = counted[name] / recorded[name] - 1
        grew = growth > GROWTH_ALLOWED
        verdict = "  SLOWER" if grew else "  faster: record it, to keep it" if growth < -GROWTH_ALLOWED else ""
        print("%-40s %13s %13s %+7.1f%%%s" % (name, format(recorded[name], ","), format(counted[name], ","),
                                            100 * growth, verdict))
        good = good and not grew
    return good


def main():
    here = pathlib.Path(__file__).parent
    parser = argparse.ArgumentParser()
    parser.add_argument("--write", action="store_true")
    parser.add_argument("--only", action="append", default=[])
    parser.add_argument("--twice")
    parser.add_argument("--counted", action="store_true")
    parser.add_argument("program", help="KeyOperations, or with --counted the file")
    parser.add_argument("figures", nargs="?", type=pathlib.Path, default=here / "figures.txt")
    arguments = parser.parse_args()

    if arguments.write:
        counts = countInstructions(arguments.program, arguments.only, arguments.twice)
        writeFigures(arguments.figures, buildOf(arguments.program), counts)
        return 0
    recordedBuild, recorded = readFigures(arguments.figures)
    if arguments.counted:
        build, counts = readFigures(pathlib.Path(arguments.program))
    else:
        build, counts = buildOf(arguments.program), None
    if build != recordedBuild:
        for line in sorted(build ^ recordedBuild):
            print("%s: %s" % ("recorded" if line in recordedBuild else "here", line))
        skip("%s was recorded with another compiler or other libraries" % arguments.figures.name)
    if arguments.only:
        recorded = {name: figure for name, figure in recorded.items() if name in arguments.only}
    if counts is None:
        counts = countInstructions(arguments.program, arguments.only, arguments.twice)
    if compare(recorded, counts):
        return 0
    print("\nAn operation takes over %d %% more instructions than recorded. If that is meant:\n"
          "    tests/instructions/guard.py --write build/release/bin/KeyOperations\n"
          "and the reason in the message of the commit." % (100 * GROWTH_ALLOWED))
    return 1


if __name__ == "__main__":
    sys.exit(main())
