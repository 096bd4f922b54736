# SPDX-License-Identifier: Apache-2.0
"""How a part of tests/full.sh reports: it prints its rows, and writes them to the file that FIGURES names."""
import json
import os
import pathlib


def row(what, figure, ok, limit=""):
    return {"what": what, "figure": str(figure), "limit": str(limit), "ok": bool(ok)}


def report(rows, notes=()):
    """Returns what the part exits with."""
    for line in rows:
        limit = " (limit: %s)" % line["limit"] if line["limit"] else ""
        print("%s: %s%s%s" % (line["what"], line["figure"], limit, "" if line["ok"] else ": FAILED"))
    for note in notes:
        print(note)
    if "FIGURES" in os.environ:
        path = pathlib.Path(os.environ["FIGURES"])
        path.write_text(json.dumps({"rows": rows, "notes": list(notes)}, indent=1) + "\n", encoding="utf-8")
    return 0 if all(line["ok"] for line in rows) else 1
