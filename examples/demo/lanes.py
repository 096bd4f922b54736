# SPDX-License-Identifier: Apache-2.0
"""The lanes of the picture: links, the outer socket, the tunnel, packets through and beside it, and outages.

FOLDER/links is what `ip -ts -o monitor link` printed, FOLDER/packets-* what packets.py printed, FOLDER/outages.tsv has
begin and end of each outage in microseconds. All times here are in milliseconds since the story began.
"""
import datetime
import glob
import os
import re

WIFI, CELLULAR, TUNNEL, BESIDE = "#3b7dd8", "#e08a1e", "#4a9d5b", "#c0392b"
LINKS = {"eth0": ("Wi-Fi", WIFI), "rmnet0": ("cellular", CELLULAR), "norvatun0": ("tunnel", TUNNEL)}
PLACES = {"wifi": WIFI, "cellular": CELLULAR, "gateway": TUNNEL, "office": TUNNEL}
ORDER = ("Wi-Fi", "cellular", "outer socket", "tunnel", "packets through", "packets beside")
NAMES = {"outer": "outer socket", "through": "packets through", "beside": "packets beside"}
TOGETHER = 25  # milliseconds: packets that follow closer are one bar


def linesOf(file):
    if not os.path.exists(file):
        return []
    with open(file, encoding="utf-8") as lines:
        return lines.read().splitlines()


def linkBars(folder, began, total):
    """(lane, begin, end, colour) for each time that a link was up."""
    pattern = re.compile(r"\[(\S+)\] (Deleted )?\d+: ([^:@]+)[^<]*<([^>]*)>")
    since = {}
    for line in linesOf(os.path.join(folder, "links")):
        match = pattern.match(line)
        if not match or match[3] not in LINKS:
            continue
        time = datetime.datetime.fromisoformat(match[1]).timestamp() * 1000 - began
        isUp = not match[2] and "LOWER_UP" in match[4].split(",")
        if isUp:
            since.setdefault(match[3], time)
        elif match[3] in since:
            yield (LINKS[match[3]][0], since.pop(match[3]), time, LINKS[match[3]][1])
    for link, time in since.items():
        yield (LINKS[link][0], time, total, LINKS[link][1])


def packetBars(folder, began):
    for file in sorted(glob.glob(os.path.join(glob.escape(folder), "packets-*"))):
        bars = {}
        for line in linesOf(file):
            if line.count("\t") != 2:
                continue
            time, lane, place = line.split("\t")
            time = int(time) / 1000 - began
            if lane in bars and time - bars[lane][2] <= TOGETHER:
                bars[lane][2] = time
                continue
            if lane in bars:
                yield tuple(bars[lane])
            bars[lane] = [NAMES[lane], time, time, BESIDE if lane == "beside" else PLACES[place]]
        yield from map(tuple, bars.values())


def outagesIn(folder, began):
    for line in linesOf(os.path.join(folder, "outages.tsv")):
        begin, end = (int(text) / 1000 - began for text in line.split("\t"))
        yield begin, end


def drawOutages(outages, x, top, bottom):
    """A red bar over the lanes each, with its length above; those that lie close get a line of their own."""
    for number, (begin, end) in enumerate(outages):
        y = top - 8 - 14 * (number % 2)
        print('<rect x="%.1f" y="%d" width="%.1f" height="%d" fill="%s" opacity="0.35"/>'
              % (x(begin), y, max(x(end) - x(begin), 1), bottom - y, BESIDE))
        print('<text x="%.1f" y="%d" font-size="12" fill="%s">%.0f ms</text>' % (x(end) + 3, y + 6, BESIDE, end - begin))


def drawLanes(folder, began, total, x, top):
    """Draws them from `top` on, and returns where they end. Nothing when nothing was watched."""
    bars = list(linkBars(folder, began, total)) + list(packetBars(folder, began))
    if not bars:
        return top
    rows = {name: top + 44 + 22 * row for row, name in enumerate(ORDER)}
    bottom = top + 44 + 22 * len(ORDER)
    for name, y in rows.items():
        print('<text x="12" y="%d">%s</text>' % (y + 12, name))
        print('<line x1="%.1f" x2="%.1f" y1="%d" y2="%d" stroke="#ddd"/>' % (x(0), x(total), y + 16, y + 16))
    for lane, begin, end, colour in sorted(bars):
        print('<rect x="%.1f" y="%d" width="%.1f" height="14" fill="%s"/>'
              % (x(begin), rows[lane], max(x(end) - x(begin), 1), colour))
    drawOutages(sorted(outagesIn(folder, began)), x, rows[ORDER[0]], bottom)
    print('<text x="12" y="%d" fill="#555">Red in the lanes: outages while a ping was sent every 10 ms. Packets beside '
          'the tunnel: those that the demo sent there itself, as a control.</text>' % (bottom + 18))
    return bottom + 24
