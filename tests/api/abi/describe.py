#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""describe.py FOLDER c|c++ COMPILER [FUNCTION ...]: prints what a program built against the headers of FOLDER relies on.

The headers are compiled for themselves, and what the compiler wrote down about them (DWARF) is printed: virtual
operations by the slot that the compiler gave them, records with sizes and offsets, enumerators with values, types, and
function signatures. Nothing is named here that is looked for, so nothing that was added can be missed. C++ compilers
keep no record of a function that is only declared: those are named as FUNCTION. A C compiler lists them all.
"""
import glob
import os
import re
import subprocess
import sys
import tempfile

LINE = re.compile(r"^ *<(\w+)><(\w+)>: Abbrev Number: (\d+)(?: \((DW_TAG_\w+)\))?")
ATTRIBUTE = re.compile(r"^ *<\w+> +(DW_AT_\w+) *: ?(.*?)\s*$")


def run(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


class Entry:
    """One entry of the debug information, with those below it."""

    def __init__(self, tag):
        self.tag = tag.replace("DW_TAG_", "")
        self.attributes = {}
        self.children = []

    def text(self, name):
        value = self.attributes.get("DW_AT_" + name, "")
        return re.sub(r"^\((?:indirect|alt)[^)]*\): ", "", value)

    def number(self, name):
        return int(self.text(name).split()[0], 0)

    def has(self, name):
        return "DW_AT_" + name in self.attributes


class DebugInformation:
    def __init__(self, objectFile):
        self.entries = {}
        self.top = []
        open_entries = {}
        for line in run("readelf", "--debug-dump=info", objectFile).splitlines():
            start = LINE.match(line)
            if start and start.group(4):
                depth, entry = int(start.group(1), 16), Entry(start.group(4))
                self.entries[int(start.group(2), 16)] = entry
                open_entries[depth] = entry
                if depth == 1:
                    self.top.append(entry)
                elif depth > 1:
                    open_entries[depth - 1].children.append(entry)
                continue
            attribute = ATTRIBUTE.match(line)
            if attribute:
                entry.attributes[attribute.group(1)] = attribute.group(2)
        self.files = self.readFiles(objectFile)

    @staticmethod
    def readFiles(objectFile):
        files, table = {}, False
        for line in run("readelf", "--debug-dump=rawline", objectFile).splitlines():
            table = "File Name Table" in line or (table and line.strip() != "")
            row = re.match(r"^ +(\d+)\s.*\s(\S+)$", line) if table else None
            if row:
                files[int(row.group(1))] = os.path.basename(row.group(2))
        return files

    def declaredIn(self, entry):
        return self.files.get(entry.number("decl_file")) if entry.has("decl_file") else None

    def target(self, entry):
        if not entry.has("type"):
            return None
        return self.entries[int(re.search(r"<0x(\w+)>", entry.text("type")).group(1), 16)]

    def typeName(self, entry, inner=""):
        """The type as C++ writes it, around the declarator `inner`."""
        if entry is None:
            return join("void", inner)
        tag = entry.tag
        if tag in ("pointer_type", "reference_type"):
            mark = "*" if tag == "pointer_type" else "&"
            target = self.target(entry)
            if target is not None and target.tag == "subroutine_type":
                return self.typeName(target, "(" + mark + inner + ")")
            return self.typeName(target, mark + inner)
        if tag in ("const_type", "volatile_type"):
            word, target = tag[: -len("_type")], self.target(entry)
            if target is not None and target.tag in ("pointer_type", "reference_type"):
                return self.typeName(target, join(word, inner))
            return word + " " + self.typeName(target, inner)
        if tag == "subroutine_type":
            return self.typeName(self.target(entry), inner + self.parameters(entry))
        if tag == "array_type":
            bounds = "".join("[%d]" % (child.number("upper_bound") + 1) if child.has("upper_bound") else "[]"
                             for child in entry.children)
            return self.typeName(self.target(entry), inner + bounds)
        return join((entry.text("name") or "(anonymous)").replace("_Bool", "bool"), inner)

    def parameters(self, entry):
        names = []
        for child in entry.children:
            if child.tag == "formal_parameter" and not child.has("artificial"):
                names.append(self.typeName(self.target(child)))
            elif child.tag == "unspecified_parameters":
                names.append("...")
        return "(" + ", ".join(names) + ")"


def join(word, inner):
    """`word* name`, `word name`, `word (*name)(...)`, but `word*` and `word` when there is no name."""
    marks = re.match(r"[*&]*", inner).group(0)
    rest = inner[len(marks):]
    return word + marks + (" " if rest and not rest.startswith("[") else "") + rest


def describeRecord(info, entry):
    kind = entry.tag.replace("_type", "").replace("structure", "struct")
    bases = [info.typeName(info.target(child)) for child in entry.children if child.tag == "inheritance"]
    title = "%s %s" % (kind, entry.text("name") or "(anonymous)")
    if entry.has("declaration"):
        return [title + ", opaque"]
    lines = [title + (" : " + ", ".join(bases) if bases else "") + ", %d bytes" % entry.number("byte_size")]
    for child in entry.children:
        name = child.text("name")
        if child.tag == "member":
            if name.startswith("_vptr"):
                continue  # what the class begins with is in its size
            offset = child.number("data_member_location") if child.has("data_member_location") else 0
            bits = " : %d at bit %d" % (child.number("bit_size"), child.number("data_bit_offset")) if child.has("bit_size") else ""
            lines.append("    at %d: %s" % (offset, info.typeName(info.target(child), name) + bits))
        elif child.tag == "subprogram" and not child.has("artificial"):
            lines.append("    " + describeOperation(info, child))
    return lines


def describeOperation(info, entry):
    name = entry.text("name")
    if name.startswith("~"):  # its place shows in the slots of the others: the compiler does not tell it
        return ("two slots: " if entry.has("virtuality") else "no slot: ") + name
    signature = info.typeName(info.target(entry), name + info.parameters(entry))
    if not entry.has("vtable_elem_location"):
        return "no slot: " + signature
    return "slot %s: %s" % (re.search(r"DW_OP_constu: (\d+)", entry.text("vtable_elem_location")).group(1), signature)


def describeEnumeration(info, entry):
    underlying = info.target(entry)
    lines = ["enum %s, %d bytes%s" % (entry.text("name") or "(anonymous)", entry.number("byte_size"),
                                      ", " + info.typeName(underlying) if underlying is not None else "")]
    return lines + ["    %s = %d" % (child.text("name"), child.number("const_value")) for child in entry.children]


def describeTypes(info, entries, headers):
    blocks = []
    for entry in entries:
        if entry.tag == "namespace":
            blocks += describeTypes(info, entry.children, headers)
        if info.declaredIn(entry) not in headers and not (entry.has("declaration") and entry.has("name")):
            continue
        if entry.tag in ("class_type", "structure_type", "union_type"):
            blocks.append(describeRecord(info, entry))
            blocks += describeTypes(info, entry.children, headers)
        elif entry.tag == "enumeration_type":
            blocks.append(describeEnumeration(info, entry))
        elif entry.tag == "typedef":
            name = entry.text("name")
            if info.typeName(info.target(entry)) != name:  # C's "typedef struct X X" tells nothing
                blocks.append(["type " + info.typeName(info.target(entry), name)])
    return blocks


def describeFunctions(info, language, headers, auxiliary):
    if language == "c++":
        probes = {entry.text("name")[len("probe_"):]: info.target(info.target(entry)) for entry in info.top
                  if entry.text("name").startswith("probe_") and entry.has("type")}
        return [info.typeName(info.target(function), name + info.parameters(function))
                for name, function in probes.items()]
    found = []
    with open(auxiliary, encoding="utf-8") as lines:
        for line in lines:
            match = re.match(r"/\* (.*):\d+:\w+ \*/ (.*;)", line)
            if match and os.path.basename(match.group(1)) in headers:
                found.append(re.sub(r"^extern |;$", "", match.group(2)).replace(" (", "(").replace(" *", "* ").replace("* *", "**")
                             .replace("* )", "*)").replace("* ,", "*,"))
    return found


def describeMacros(folder, headers):
    found = []
    for header in headers:
        with open(os.path.join(folder, header), encoding="utf-8") as lines:
            found += [line.strip()[len("#define "):] for line in lines if re.match(r"#define \w+ +\S", line)]
    return found


def main():
    folder, language, compiler, probes = sys.argv[1], sys.argv[2], sys.argv[3], sys.argv[4:]
    headers = sorted(os.path.basename(path) for path in glob.glob(os.path.join(folder, "*.h")))
    with tempfile.TemporaryDirectory() as work:
        source, objectFile, auxiliary = (os.path.join(work, name) for name in ("api." + language, "api.o", "api.aux"))
        with open(source, "w", encoding="utf-8") as out:
            out.writelines('#include "%s"\n' % header for header in headers)
            out.writelines("extern decltype(%s)& probe_%s; decltype(%s)& probe_%s = %s;\n" % ((name,) * 5)
                           for name in probes)
        extra = ["-std=c++17"] if language == "c++" else ["-std=c11", "-aux-info", auxiliary]
        subprocess.run([compiler, *extra, "-I", os.path.abspath(folder), "-g", "-gdwarf-5",
                        "-fno-eliminate-unused-debug-types", "-c", source, "-o", objectFile], check=True)
        info = DebugInformation(objectFile)
        blocks = describeTypes(info, info.top, headers)
        blocks.append(["functions"] + ["    " + line for line in
                                       sorted(describeFunctions(info, language, headers, auxiliary))])
    macros = describeMacros(folder, headers)
    if macros:
        blocks.append(["constants"] + ["    " + line for line in macros])
    seen = []
    for block in blocks:
        if block not in seen:
            seen.append(block)
    print("\n\n".join("\n".join(block) for block in seen))


try:
    main()
except subprocess.CalledProcessError as error:
    sys.exit("describe.py: %s failed" % error.cmd[0])
