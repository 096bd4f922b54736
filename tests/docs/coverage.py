#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""coverage.py SOURCE_TREE: the documentation leaves nothing out, and its links lead somewhere.

Each operation and callback of the agent's interface, as the ABI guard knows them, is in the agent guide; each service
method with each of its error codes is in bus.md; each tool and library is in porting.md; each claim of security.md names
tests that exist; each link between files of the tree has a target.
"""
import pathlib
import re
import sys


def read(root, name):
    return (root / name).read_text(encoding="utf-8")


def missingOperations(root):
    guide = read(root, "docs/agent-guide.md")
    names = re.findall(r"slot \d+: .*?[ *&](\w+)\(", read(root, "tests/api/abi/agent-64.txt"))
    names += re.findall(r"^    (?:\S+ )?[\w*]+ (\w+)\(", read(root, "tests/api/abi/agent-64.txt").split("\nfunctions\n")[1], re.M)
    for name in sorted(set(names)):
        if not re.search(r"\b%s\b" % name, guide):
            yield "docs/agent-guide.md does not tell of " + name
    for name in re.findall(r"^    (\w+) = -?\d+", read(root, "tests/api/abi/agent-64.txt"), re.M):
        short = "_" + name.rsplit("_", 1)[1]
        if not name.startswith("PROXY_") and name not in guide and "`%s`" % short not in guide:
            yield "docs/agent-guide.md does not tell of " + name
    if len(set(names)) < 50:
        yield "only %d operations were found" % len(set(names))


def missingCodes(root):
    section = read(root, "docs/bus.md").split("## com.vesk.certificatemanager")[1]
    codes = set(re.findall(r"^    \w+ = (\d+),", read(root, "services/certificatemanager/CertificateStore.h"), re.M)) - {"0"}
    listed = set(re.findall(r"^\| (\d+) \|", section, re.M))
    for code in sorted(codes ^ listed, key=int):
        yield "docs/bus.md and CertificateStore.h differ about error code " + code
    if len(codes) < 5:
        yield "only %d error codes were found" % len(codes)


def missingMethods(root):
    bus = read(root, "docs/bus.md")
    sources = "".join(path.read_text(encoding="utf-8") for path in (root / "services").rglob("*.cpp"))
    methods = re.findall(r'\{"(\w+)", \w+\}, \{nullptr', sources)
    for method in methods:
        if "| `%s` |" % method not in bus:
            yield "docs/bus.md does not tell of the method " + method
    if len(methods) < 2:
        yield "only %d service methods were found" % len(methods)


def missingFunctions(root):
    porting = read(root, "docs/porting.md")
    for header in (root / "platform/include").glob("*.h"):
        if header.name not in porting:
            yield "docs/porting.md does not tell of " + header.name


def missingTests(root):
    known = set()
    for path in (root / "tests").rglob("*.cpp"):
        for suite, case in re.findall(r"^TEST(?:_F|_P)?\((\w+),\s*(\w+)\)", path.read_text(encoding="utf-8"), re.M):
            known |= {suite, suite + "." + case}
    for path in (root / "tests").rglob("CMakeLists.txt"):
        known |= set(re.findall(r"wfoal_(?:script_test|fuzz)\(([\w.]+)", path.read_text(encoding="utf-8")))
    rows = re.findall(r"^\|.*\|(.*)\|$", read(root, "docs/security.md"), re.M)
    claims = [row for row in rows if row.strip() not in ("test", "---")]
    for row in claims:
        tests = re.findall(r"`([\w.]+)`", row)
        if not tests:
            yield "docs/security.md has a claim without a test: " + row
        for test in tests:
            if test not in known:
                yield "docs/security.md names the test %s, which is not there" % test
    if len(claims) < 20:
        yield "only %d claims were found" % len(claims)


def documents(root):
    return [*root.glob("*.md"), *(root / "docs").glob("*.md"), root / "Src/README.md", root / "examples/client/README.md"]


def missingFiles(root):
    folders = {path.name for path in root.iterdir() if path.is_dir()} - {"build"}
    for document in documents(root):
        for word in re.findall(r"`\.?/?([\w.-]+/[\w./-]+|\w+\.sh)(?= |`)", document.read_text(encoding="utf-8")):
            if word.split("/")[0] in folders | {word} and not (root / word).exists():
                yield "%s tells of %s, which is not there" % (document.relative_to(root), word)


def brokenLinks(root):
    for document in documents(root):
        for target in re.findall(r"\]\(([^)#]+?)(?:#[^)]*)?\)", document.read_text(encoding="utf-8")):
            if "://" not in target and not (document.parent / target).exists():
                yield "%s links to %s, which is not there" % (document.relative_to(root), target)


def main():
    root = pathlib.Path(sys.argv[1])
    faults = [fault for check in (missingOperations, missingCodes, missingMethods, missingFunctions, missingTests,
                                missingFiles, brokenLinks)
              for fault in check(root)]
    print("\n".join(faults))
    return 1 if faults else 0


sys.exit(main())
