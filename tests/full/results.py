#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Keeps and shows the results of tests/full.sh, which calls it in the source folder.

    results.py has PART COMMIT                       exits with 0 when the part has a result for this commit
    results.py record PART COMMIT BEGAN STATUS       keeps what the part has written, with how it ended; BEGAN is the time
    results.py report COMMIT PART...                 prints the table of these parts, and writes the page of all
"""
import datetime
import json
import pathlib
import sys
import time

FIGURES = pathlib.Path("build/full")
RESULTS = pathlib.Path("docs/reliability")  # in the tree, so that another clone goes on with them
PAGE = pathlib.Path("docs/reliability.md")
HEAD = """# Reliability

What `./test.sh --full` has measured, beyond what `./test.sh` runs for each change. The command writes this page; a change
by hand does not last. Each part can be run alone: `./test.sh --full PART`. A result belongs to the commit beside it.
"""


def parts():
    """Name and description of each part, in their order."""
    for line in pathlib.Path("tests/full/parts.txt").read_text(encoding="utf-8").splitlines():
        if line.strip() and not line.startswith("#"):
            name, _, what, _ = line.split("|", 3)
            yield name.strip().lstrip("+"), what.strip()


def load(part):
    path = RESULTS / (part + ".json")
    return json.loads(path.read_text(encoding="utf-8")) if path.exists() else None


def has(part, commit):
    result = load(part)
    return 0 if result and result["commit"] == commit and result["finished"] else 1


def written(part):
    """What the part wrote, or None and why that cannot be used."""
    try:
        figures = json.loads((FIGURES / (part + ".figures")).read_text(encoding="utf-8"))
        rows = [{"what": str(row["what"]), "figure": str(row["figure"]), "limit": str(row.get("limit", "")),
                 "ok": row["ok"] is True} for row in figures["rows"]]
        return (rows, [str(note) for note in figures.get("notes", [])]), "" if rows else "it has no rows"
    except FileNotFoundError:
        return None, "there are no figures"
    except (ValueError, KeyError, TypeError) as error:
        return None, "its figures cannot be read (%s)" % error


def record(part, commit, began, status):
    figures, fault = written(part)
    rows, notes = figures or ([], [])
    if not fault and status != 0 and all(row["ok"] for row in rows):
        fault = "it did not succeed"
    if fault:
        rows.append({"what": "end of the part", "figure": "exit code %d, %s" % (status, fault), "limit": "0", "ok": False})
    result = {"commit": commit, "began": began, "seconds": round(time.time()) - began, "date": datetime.date.today().isoformat(), "finished": figures is not None,
              "rows": rows, "notes": notes}
    path = RESULTS / (part + ".json")
    RESULTS.mkdir(parents=True, exist_ok=True)
    path.with_suffix(".new").write_text(json.dumps(result, indent=1) + "\n", encoding="utf-8")
    path.with_suffix(".new").replace(path)


def duration(seconds):
    return "%d s" % seconds if seconds < 120 else "%d min" % round(seconds / 60)


def elapsed(results):
    """Seconds in which at least one of them was measured."""
    total = end = 0
    for began, seconds in sorted((result["began"], result["seconds"]) for result in results):
        total += max(0, began + seconds - max(began, end))
        end = max(end, began + seconds)
    return total


def verdict(row, result, commit):
    stale = "" if result["commit"] == commit else " (at %s)" % result["commit"]
    return ("ok" if row["ok"] else "FAILED") + stale


def printTable(commit, names):
    lines = [("part", "what", "figure", "limit", "result")]
    for name in names:
        result = load(name)
        if result is None:
            lines.append((name, "", "", "", "not run"))
            continue
        lines += [(name, row["what"], row["figure"], row["limit"], verdict(row, result, commit)) for row in result["rows"]]
    widths = [max(len(line[column]) for line in lines) for column in range(4)]
    for line in lines:
        print("  ".join(text.ljust(width) for text, width in zip(line, widths)) + "  " + line[4])


def cells(*texts):
    return "| %s |\n" % " | ".join(text.replace("|", "\\|") for text in texts)


def page():
    results = [(name, what, load(name)) for name, what in parts()]
    text = HEAD + "\n" + cells("part", "what it does", "took", "commit", "date") + "|---|---|---|---|---|\n"
    for name, what, result in results:
        when = (duration(result["seconds"]), result["commit"], result["date"]) if result else ("not run", "", "")
        text += cells("`%s`" % name, what, *when)
    rows = [(name, row) for name, _, result in results if result for row in result["rows"]]
    if rows:
        text += "\n" + cells("part", "measured", "figure", "limit", "") + "|---|---|---|---|---|\n"
    for name, row in rows:
        text += cells("`%s`" % name, row["what"], row["figure"], row["limit"], "ok" if row["ok"] else "**failed**")
    for name, _, result in results:
        if result and result["notes"]:
            text += "\n## %s\n\n" % name + "".join("- %s\n" % note for note in result["notes"])
    return text


def report(commit, names):
    printTable(commit, names)
    PAGE.write_text(page(), encoding="utf-8")
    results = [load(name) for name in names]
    took = elapsed(result for result in results if result)
    good = all(result and result["finished"] and all(row["ok"] for row in result["rows"]) for result in results)
    print("%d parts, %s, commit %s: %s" % (len(names), duration(took), commit, "ok" if good else "FAILED"))
    return 0 if good else 1


def main(command, *arguments):
    if command == "has":
        return has(*arguments)
    if command == "record":
        part, commit, began, status = arguments
        return record(part, commit, int(began), int(status))
    return report(arguments[0], arguments[1:])


sys.exit(main(*sys.argv[1:]))
