# SPDX-License-Identifier: Apache-2.0
"""Small changes of C++ sources, each of which a test should notice. A rule finds places in a source by its layout, which
clang-format makes uniform."""

import collections
import dataclasses
import re


@dataclasses.dataclass(frozen=True, order=True)
class Mutant:
    file: str
    start: int  # in characters
    end: int
    rule: str
    replacement: str
    name: str = ""  # without line numbers, so that it stays valid when other lines change
    line: int = 0

    def apply(self, text):
        return text[: self.start] + self.replacement + text[self.end :]

    def tell(self):
        return f"{self.file}:{self.line}: {self.name}"


def code_only(text):
    """The text with comments, literals and preprocessor lines blanked, at the same places."""
    kinds = re.compile(
        r'//[^\n]*|/\*.*?\*/|R"\((?:.|\n)*?\)"|"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])+\'|^[ \t]*#(?:[^\n]*\\\n)*[^\n]*',
        re.DOTALL | re.MULTILINE,
    )
    return kinds.sub(lambda found: re.sub(r"[^\n]", " ", found.group()), text)


def closing(code, opening):
    """The place of the parenthesis that closes the one at `opening`."""
    depth = 0
    for at in range(opening, len(code)):
        depth += {"(": 1, ")": -1}.get(code[at], 0)
        if depth == 0:
            return at
    return -1


def negate_conditions(code):
    for found in re.finditer(r"\b(?:if|while) \(", code):
        opening = found.end() - 1
        end = closing(code, opening)
        condition = code[opening + 1 : end]
        if end > 0 and not re.search(r"[^=!<>]=[^=]|;", condition):
            yield opening + 1, end, "negated condition", lambda part: f"!({part})"


STATEMENT = re.compile(
    r"^( +)(?!(?:return|else|throw|delete|using|case|if|for|while|static_assert)\b)"
    r"([\w:>.\-\[\]*]+(?:\(.*\)|(?: [+\-|&]?=) .*)|(?:\+\+|--)[\w.\->]+);(?= *$)",
    re.MULTILINE,
)


def whole_statements(code):
    """Not the last line of a longer one."""
    for found in STATEMENT.finditer(code):
        if code[: found.start()].rstrip()[-1:] in (";", "{", "}", ":"):
            yield found


def drop_statements(code):
    for found in whole_statements(code):
        yield found.start(2), found.end(), "dropped statement", lambda part: ";"


def swap_neighbours(code):
    for found in whole_statements(code):
        follower = STATEMENT.match(code, found.end() + 1)
        if follower and follower.group(1) == found.group(1) and "(" in found.group(2) and "(" in follower.group(2):
            middle = found.end() - found.start(2)

            def swapped(part, middle=middle, indent=found.group(1)):
                return part[middle + 1 + len(indent) :] + "\n" + indent + part[:middle]

            yield found.start(2), follower.end(), "swapped neighbours", swapped


# What stands for what. A level, an error or a flag that is not named here becomes the one behind "".
WORDS = [
    ("other comparison", r"(?<= )(?:==|!=|<=|>=|<|>)(?= )", {"==": "!=", "!=": "==", "<": "<=", "<=": "<", ">": ">=", ">=": ">"}),
    ("other connective", r"(?<= )(?:&&|\|\|)(?= )", {"&&": "||", "||": "&&"}),
    ("other truth value", r"\b(?:true|false)\b", {"true": "false", "false": "true"}),
    ("other log level", r"(?<=_)(?:ERROR|WARNING|INFO|DEBUG)(?=\()", {"ERROR": "WARNING", "WARNING": "INFO", "INFO": "DEBUG", "DEBUG": "INFO"}),
    ("other result", r"\bPLUGIN_(?:SUCCESS|FAILURE|BUFFER_TOO_SMALL)\b", {"PLUGIN_SUCCESS": "PLUGIN_FAILURE", "": "PLUGIN_SUCCESS"}),
    ("other error", r"(?<![=!]= )(?<!case )\bE(?:INVAL|IO|NOMEM|BADMSG|ALREADY|PERM|BUSY|NOENT|EXIST|ACCES|PROTO|TIMEDOUT)\b", {"EIO": "EPERM", "": "EIO"}),
    ("missing flag", r"(?<= \| )[A-Z][A-Z0-9_]{3,}\b", {"": "0"}),
]


def replace_words(code):
    for rule, pattern, others in WORDS:
        for found in re.finditer(pattern, code):
            yield found.start(), found.end(), rule, lambda part, others=others: others.get(part) or others[""]


def change_constants(code):
    for found in re.finditer(r"(?<![\w.\"'])\d+(?![\w.'])", code):
        line = code[code.rfind("\n", 0, found.start()) + 1 : found.end() + 10]
        if not re.search(r"\) = 0;|\bstatic_assert\b|^enum ", line):
            yield found.start(), found.end(), "other constant", lambda part: str(int(part, 8 if part.startswith("0") else 10) + 1)


def return_early(code):
    for found in re.finditer(r"^(?:static )?(\w[\w:<>,*& ]*[\w>*&]) \*?[\w:~]+\([^;{}]*\)[ \w]*\n\{\n", code, re.MULTILINE):
        value = "" if found.group(1) == "void" else " {}"
        if not found.group(1).endswith("&") and found.group(1) not in ("namespace", "struct", "class"):
            yield found.end() - 1, found.end(), "early return", lambda part, value=value: f"\n    return{value};\n"


RULES = [negate_conditions, drop_statements, swap_neighbours, replace_words, change_constants, return_early]


def first_line(text, mutant):
    """Where the lines begin that show what a mutant changes; of an early return that is the function's head."""
    first = text.rfind("\n", 0, mutant.start) + 1
    if mutant.rule == "early return":
        blank = text.rfind("\n\n", 0, mutant.start)
        first = blank + 2 if blank >= 0 else 0
    return first


def named(mutant, text, seen):
    """Its name is the rule and the lines it changes, with the change in double brackets; then which one of several alike."""
    change = text[mutant.start : mutant.end].strip(), mutant.replacement.strip()
    place = f"{text[first_line(text, mutant) : mutant.start]}[[{change[0]} => {change[1]}]]{text[mutant.end : text.find(chr(10), mutant.end)]}"
    place = re.sub(r"^ *//.*$", "", place, flags=re.MULTILINE)
    name = f"{mutant.rule}: {' '.join(place.split())}"
    seen[name] += 1
    if seen[name] > 1:
        name += f" ({seen[name]})"
    return dataclasses.replace(mutant, name=name, line=text.count("\n", 0, mutant.start) + 1)


def mutants_of(file, text):
    """All mutants of a source, in the order of their places."""
    code = code_only(text)
    found = set()
    for rule in RULES:
        for start, end, name, change in rule(code):
            replacement = change(text[start:end])
            if replacement != text[start:end]:
                found.add(Mutant(file, start, end, name, replacement))
    seen = collections.Counter()
    return [named(mutant, text, seen) for mutant in sorted(found)]
