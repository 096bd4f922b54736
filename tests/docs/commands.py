#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""commands.py SOURCE_TREE [--run]: every command that the documentation shows is run by a test.

Commands are the lines of indented blocks and of blocks marked "sh", without prompt and comment. commands.txt says of
each who runs it; a command that it does not know, one that no document shows any more, or a test that does not hold
what it should, is an error. --run prints those that this test runs itself, "EXIT_STATUS COMMAND"; --mentioned what running text says that can be called.

    FILE: COMMAND
        run [EXIT_STATUS]          in the private network of run-commands.sh
        by TEST_FILE: TEXT         another test or a step of CI, whose file holds TEXT
"""
import pathlib
import re
import sys

DOCUMENTS = ("README.md", "CONTRIBUTING.md", "CHANGELOG.md", "Src/README.md", "examples/client/README.md", "docs")


def commandsOf(path):
    block, fence, blank = [], None, True
    for line in path.read_text(encoding="utf-8").splitlines():
        start = re.match(r"^\s*```(\S*)", line)
        if start:
            fence = start.group(1) if fence is None else None
            blank = True
            continue
        indented = fence is None and line.startswith("    ") and (blank or block)
        if (fence == "sh" and line.strip()) or (indented and line.strip()):
            block.append(line)
            yield_line = re.sub(r"^\$ ", "", line.strip())
            yield_line = re.sub(r"\s+#\s.*$", "", yield_line).strip()
            if yield_line and not yield_line.startswith("#"):
                yield yield_line
        elif line.strip():
            block = []
        blank = not line.strip()


def shown(root):
    for name in DOCUMENTS:
        path = root / name
        for document in sorted(path.glob("*.md")) if path.is_dir() else [path]:
            for command in commandsOf(document):
                yield document.relative_to(root).as_posix(), command


def mentioned(root):
    """What running text says that can be called: "PROGRAM [SUBCOMMAND...] [--OPTION...]"."""
    for name in DOCUMENTS:
        path = root / name
        for document in path.glob("*.md") if path.is_dir() else [path]:
            for call in re.findall(r"`((?:vpnoalctl|vpnoalconform)(?: [^`|]*)?)`", document.read_text(encoding="utf-8")):
                words = call.split()
                below = [w for w in words[1:3] if re.fullmatch("[a-z]+", w)]
                yield " ".join(words[:1] + below + [w for w in words if re.fullmatch("--[a-z-]+", w)])


def table(root):
    entries, key = {}, None
    for line in (root / "tests/docs/commands.txt").read_text(encoding="utf-8").splitlines():
        if not line.strip() or line.startswith("#"):
            continue
        if line.startswith("    "):
            entries[key] = line.strip()
        else:
            name, command = line.split(": ", 1)
            key = (name, command)
            entries[key] = None
    return entries


def fault(root, how):
    if how is None:
        return "does not say who runs it"
    if re.fullmatch(r"run( \d+)?", how):
        return None
    match = re.fullmatch(r"by (\S+): (.*)", how)
    if not match:
        return "is not understood: " + how
    path = root / match.group(1)
    if not path.is_file():
        return "names %s, which is not there" % match.group(1)
    if match.group(2) not in path.read_text(encoding="utf-8"):
        return "names %s, which does not hold '%s'" % match.groups()
    return None


def main():
    root = pathlib.Path(sys.argv[1])
    commands, entries = list(shown(root)), table(root)
    if "--run" in sys.argv:
        for key in commands:
            match = re.fullmatch(r"run ?(\d*)", entries.get(key) or "")
            if match:
                print(match.group(1) or "0", key[1])
        return 0
    if "--mentioned" in sys.argv:
        print("\n".join(sorted(mentioned(root))))
        return 0
    failed = 0
    for key in commands:
        problem = "is run by no test: say in tests/docs/commands.txt which one" if key not in entries else fault(
            root, entries[key])
        if problem:
            print("%s: '%s' %s" % (key[0], key[1], problem))
            failed = 1
    for key in entries:
        if key not in commands:
            print("tests/docs/commands.txt: %s does not show '%s' any more" % key)
            failed = 1
    if len(commands) < 20:
        print("only %d commands were found: is this the tree?" % len(commands))
        failed = 1
    return failed


sys.exit(main())
