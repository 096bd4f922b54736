#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""manual.py VPNOALCTL VPNOALCTL-MANUAL TEXT: the manual page and --help tell of the same commands, arguments and options.

The page is made of TEXT and read as it is written; the help is asked for command by command.
"""
import pathlib
import re
import subprocess
import sys


def pageOf(maker, text):
    return subprocess.run([maker], input=text, capture_output=True, text=True, check=False)


def markFaults(maker, text):
    """A mark for nothing, and a command without a mark, end the making of the page."""
    for wrong, message in ((text + '.\\" @nothing@\n', "'nothing' is marked, and there is no such thing"),
                           (text.replace('.\\" @command info@\n', ""), "the manual page has no mark for 'command info'")):
        made = pageOf(maker, wrong)
        if made.returncode != 1 or message not in made.stderr:
            yield "instead of \"%s\": exit code %d, %s" % (message, made.returncode, made.stderr)


def helpOf(program, command):
    return subprocess.run([program, *command, "--help"], check=True, capture_output=True, text=True).stdout


def sectionOf(text, title):
    """The lines below a title of the help, up to the next blank line."""
    found = re.search(r"^%s:\n(.*?)(?:^$|\Z)" % title, text, re.M | re.S)
    return found.group(1).splitlines() if found else []


def wordsOf(text, title):
    return [line.split()[0] for line in sectionOf(text, title) if re.match(r"^  \S", line)]


def optionsOf(help):
    options = {option for words in wordsOf(help, "Options") for option in words.split(",")}
    return options - {"-h", "--help", "--help-all"}


def commandsOf(program, command=()):
    """Each command with its help; a group's are those in it."""
    help = helpOf(program, command)
    inner = wordsOf(help, "Subcommands")
    if not inner:
        yield " ".join(command), help
    for word in inner:
        yield from commandsOf(program, (*command, word))


def plain(line):
    return re.sub(r"\\f[BIRP]", "", line).replace("\\-", "-").replace("\\&", "")


def pageSections(roff):
    """Of each command its lines, and those of the common options under an empty name."""
    sections, current = {}, None
    for line in roff.splitlines():
        if line.startswith(".SS "):
            current = sections.setdefault(plain(line[4:]).strip('"'), [])
        elif line.startswith(".SH "):
            current = sections.setdefault("", []) if line == ".SH OPTIONS" else None
        elif current is not None:
            current.append(line)
    return sections


def pageTags(lines):
    """The lines after .TP, which name an option or an argument."""
    return [plain(line) for before, line in zip(lines, lines[1:]) if before == ".TP"]


def pageOptions(lines):
    return {word for tag in pageTags(lines) for word in re.findall(r"(?<!\S)--?[A-Za-z][\w-]*", tag)}


def differences(where, inHelp, inPage):
    for word in sorted(inHelp - inPage):
        yield "%s: %s is in --help, not in the manual page" % (where, word)
    for word in sorted(inPage - inHelp):
        yield "%s: %s is in the manual page, not in --help" % (where, word)


def main():
    program, maker, source = sys.argv[1:]
    text = pathlib.Path(source).read_text(encoding="utf-8")
    made = pageOf(maker, text)
    sections = pageSections(made.stdout)
    commands = dict(commandsOf(program))
    faults = list(differences("commands", set(commands), set(sections) - {""}))
    for name, help in commands.items():
        lines = sections.get(name, [])
        faults += differences(name, optionsOf(help), pageOptions(lines))
        arguments = {tag for tag in pageTags(lines) if not tag.startswith("-")}
        if len(arguments) != len(wordsOf(help, "Positionals")):
            faults.append("%s: --help has other arguments than %s" % (name, sorted(arguments)))
    common = pageOptions(sections[""]) - {"-h", "--help", "--help-all"}
    faults += differences("common options", optionsOf(helpOf(program, ())), common)
    faults += markFaults(maker, text)
    if made.returncode != 0:
        faults.append(made.stderr)
    if len(commands) < 23:
        faults.append("only %d commands were found" % len(commands))
    print("\n".join(faults))
    return 1 if faults else 0


sys.exit(main())
