#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""tidy.py BUILD SOURCE...: runs clang-tidy over those of the sources that the build in the folder BUILD compiles.

BUILD must be up to date. A source without a finding is judged again only when the source, a file that it includes, its
command, .clang-tidy or clang-tidy itself has changed: the folder BUILD/tidy keeps what was judged. Exits with 1 when
there is a finding.
"""

import concurrent.futures
import functools
import hashlib
import json
import os
import pathlib
import re
import subprocess
import sys


@functools.lru_cache(maxsize=None)
def hash_of(path):
    return hashlib.sha256(pathlib.Path(path).read_bytes()).hexdigest()


def includes_of_objects(build):
    """The files that each object was made from."""
    listing = subprocess.run(["ninja", "-C", build, "-t", "deps"], check=True, capture_output=True, text=True).stdout
    includes = {}
    for line in listing.splitlines():
        if line.startswith("    "):
            includes[target].append(os.path.normpath(os.path.join(build, line.strip())))
        elif ": #deps" in line:
            target = line.split(": #deps")[0]
            includes[target] = []
    return includes


def compiled_sources(build, wanted):
    """Source, command and included files of each wanted source, once each."""
    includes = includes_of_objects(build)
    found = {}
    for entry in json.loads(pathlib.Path(build, "compile_commands.json").read_text()):
        source = os.path.realpath(entry["file"])
        output = re.search(r" -o (\S+) ", entry["command"]).group(1)
        if source in wanted and output in includes:
            found.setdefault(source, (entry["command"], includes[output]))
    return found


def key_of(common, command, files):
    contents = [f"{path} {hash_of(path)}" for path in sorted(files)]
    return hashlib.sha256("\n".join([common, command, *contents]).encode()).hexdigest()


def judge(build, source, key):
    """What clang-tidy finds, or an empty text."""
    clean = pathlib.Path(build, "tidy", key)
    if clean.exists():
        return ""
    run = subprocess.run(["clang-tidy", "--quiet", "-p", build, source], capture_output=True, text=True, check=False)
    if run.returncode == 0:
        clean.touch()
        return ""
    return run.stdout or run.stderr or f"{source}: clang-tidy ended with {run.returncode}\n"


def main():
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    build = sys.argv[1]
    wanted = {os.path.realpath(source) for source in sys.argv[2:]}
    version = subprocess.run(["clang-tidy", "--version"], check=True, capture_output=True, text=True).stdout
    common = version + hash_of(".clang-tidy")
    pathlib.Path(build, "tidy").mkdir(exist_ok=True)
    sources = compiled_sources(build, wanted)
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as workers:
        findings = workers.map(
            lambda source: judge(build, source, key_of(common, *sources[source])), sorted(sources))
        count = 0
        for finding in findings:
            count += finding != ""
            sys.stdout.write(finding)
            sys.stdout.flush()
    left_out = f", {len(wanted) - len(sources)} that the build does not compile" if len(sources) < len(wanted) else ""
    print(f"clang-tidy: {len(sources)} sources, {count} with findings{left_out}")
    return 1 if count else 0


if __name__ == "__main__":
    sys.exit(main())
