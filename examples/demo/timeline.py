#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""timeline.py STEPS BEGAN [--svg]: draws the story's time line: a bar of text for each chapter, or a picture (SVG).

STEPS has a line a step: begin and end in microseconds, result, chapter and step, with tabs between them. BEGAN is when
the story began. The picture has lanes too, from what lies in the folder of STEPS.
"""
import os
import sys
from xml.sax.saxutils import escape

from lanes import drawLanes

COLOURS = {"verified": "#4a9d5b", "skipped": "#b0b0b0", "failed": "#c0392b"}


def stepsIn(file, began):
    """Dictionaries with times in milliseconds since the beginning."""
    with open(file, encoding="utf-8") as lines:
        for line in lines:
            begin, end, result, chapter, step = line.rstrip("\n").split("\t")
            yield {"begin": (int(begin) - began) / 1000, "end": (int(end) - began) / 1000, "result": result,
                   "chapter": chapter, "step": step}


def chaptersOf(steps):
    """Begin, end and result of each chapter, by its name. A failed step counts first, then a verified one."""
    chapters = {}
    for step in steps:
        one = chapters.setdefault(step["chapter"], {"begin": step["begin"], "results": set()})
        one["end"] = step["end"]
        one["results"].add(step["result"])
    for one in chapters.values():
        one["result"] = next(result for result in ("failed", "verified", "skipped") if result in one["results"])
    return chapters


def drawText(chapters, total, width=48):
    for name, one in chapters.items():
        begin = min(int(one["begin"] * width / total), width - 1)
        length = max(int(one["end"] * width / total) - begin, 1)
        bar = ("." * begin + "#" * length).ljust(width, ".")[:width]
        print("  %-44s %s %7.0f ms" % (name[:44], bar, one["end"] - one["begin"]))


def drawAxis(total, x, y):
    """A mark each second, a number each five."""
    for second in range(int(total / 1000) + 1):
        length = 8 if second % 5 == 0 else 4
        print('<line x1="%.1f" x2="%.1f" y1="%d" y2="%d" stroke="#888"/>' % (x(second * 1000), x(second * 1000), y, y + length))
        if second % 5 == 0:
            print('<text x="%.1f" y="%d" fill="#555" text-anchor="middle">%d s</text>' % (x(second * 1000), y + 22, second))
    print('<line x1="%.1f" x2="%.1f" y1="%d" y2="%d" stroke="#888"/>' % (x(0), x(total), y, y))


def drawSvg(steps, chapters, total, folder, began):
    """A row a chapter, a mark a step; the lanes; the axis of time."""
    rows = {name: 22 + 26 * row for row, name in enumerate(chapters, 1)}
    width = 1200

    def x(milliseconds):
        return 460 + milliseconds * width / total

    print('<svg xmlns="http://www.w3.org/2000/svg" width="1750" height="%d" font-family="sans-serif" font-size="13">'
          % (280 + 26 * len(rows)))
    print('<rect width="100%" height="100%" fill="white"/>')
    print('<text x="12" y="22" font-size="15">One connection, %.1f s</text>' % (total / 1000))
    for name, one in chapters.items():
        y, took = rows[name], one["end"] - one["begin"]
        print('<text x="12" y="%d">%s</text>' % (y + 13, escape(name)))
        print('<rect x="%.1f" y="%d" width="%.1f" height="16" fill="%s" rx="2"/>'
              % (x(one["begin"]), y, max(took * width / total, 1), COLOURS[one["result"]]))
        print('<text x="1670" y="%d" fill="#555">%.0f ms</text>' % (y + 13, took))
    for step in steps:
        y = rows[step["chapter"]]
        print('<line x1="%.1f" x2="%.1f" y1="%d" y2="%d" stroke="white" stroke-width="0.7"><title>%s</title></line>'
              % (x(step["end"]), x(step["end"]), y, y + 16, escape(step["step"])))
    drawAxis(total, x, drawLanes(folder, began, total, x, 52 + 26 * len(rows)))
    print("</svg>")


def main():
    steps = list(stepsIn(sys.argv[1], int(sys.argv[2])))
    chapters = chaptersOf(steps)
    total = max(one["end"] for one in chapters.values())
    if "--svg" in sys.argv:
        drawSvg(steps, chapters, total, os.path.dirname(sys.argv[1]), int(sys.argv[2]) / 1000)
    else:
        drawText(chapters, total)


main()
