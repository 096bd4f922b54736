#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""record.py SUITE FOLDER: what Python's own tests of its JSON reader and of its addresses feed these, with the verdicts.

SUITE is the folder that holds the package `test` of this Python's version. The tests run, and each text that they give to
a reader is written to a file in FOLDER, as a line "VERDICT HEX": ok or bad, and the text's bytes in UTF-8. A line of an
address or network has its normal form in addition, when it is ok. Of the JSON tests those count that leave the reader's
settings alone. Texts that UTF-8 cannot hold, and those with a NUL, are left out.
"""
import functools
import importlib
import ipaddress
import pathlib
import sys
import unittest

READERS = ("IPv4Address", "IPv4Interface", "IPv4Network", "IPv6Address", "IPv6Interface", "IPv6Network")


class Record:
    def __init__(self):
        self.lines = {}

    def add(self, text, isGood, *forms):
        try:
            encoded = text.encode("utf-8")
        except UnicodeError:
            return
        if b"\0" not in encoded:
            words = ["ok" if isGood else "bad", encoded.hex() or "-", *(form.encode("ascii").hex() for form in forms)]
            self.lines[" ".join(words)] = None

    def write(self, path):
        path.write_text("".join(line + "\n" for line in self.lines), encoding="ascii")


def recordAddresses(folder):
    records = {}
    for name in READERS:
        reader, record = getattr(ipaddress, name), Record()
        records[name] = record

        def read(self, text, *settings, _kind=reader, _read=reader.__init__, _record=record, **named):
            isText = type(self) is _kind and isinstance(text, str) and not settings and not named
            try:
                _read(self, text, *settings, **named)
            except ValueError:
                if isText:
                    _record.add(text, False)
                raise
            if isText:
                _record.add(text, True, str(self))

        reader.__init__ = read
    run(importlib.import_module("test.test_ipaddress"))
    for name, record in records.items():
        record.write(folder / (name + ".txt"))


def recordJson(folder):
    package, record = importlib.import_module("test.test_json"), Record()
    for kind in (package.PyTest, package.CTest):
        @functools.wraps(kind.loads)
        def load(text, *settings, _load=kind.loads, _errors=(ValueError, RecursionError), **named):
            isPlain = isinstance(text, str) and not settings and not named
            try:
                value = _load(text, *settings, **named)
            except _errors as error:
                if isPlain and isinstance(error, ValueError):
                    record.add(text, False)
                raise
            if isPlain:
                record.add(text, True)
            return value

        kind.loads = staticmethod(load)
    for name in ("decode", "fail", "float", "pass1", "pass2", "pass3", "recursion", "scanstring", "separators", "unicode"):
        run(importlib.import_module("test.test_json.test_" + name))
    record.write(folder / "json.txt")


def run(module):
    result = unittest.TextTestRunner(stream=open("/dev/null", "w", encoding="utf-8")).run(
        unittest.defaultTestLoader.loadTestsFromModule(module))
    if result.testsRun == 0:
        sys.exit("record.py: %s has no tests" % module.__name__)


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    package = importlib.import_module("test")
    package.__path__.insert(0, str(pathlib.Path(sys.argv[1]).resolve()))
    folder = pathlib.Path(sys.argv[2])
    folder.mkdir(parents=True, exist_ok=True)
    recordAddresses(folder)
    recordJson(folder)


main()
