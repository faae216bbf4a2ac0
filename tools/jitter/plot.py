#!/usr/bin/python3
"""Draws the ways that jitter --csv has written: where the face is from left to right and how large it
is, over time, in each of the columns that jitter prints.

usage: plot.py WAYS.csv DRAWING.svg    (or .png, .pdf)
"""

import csv
import math
import sys

import matplotlib

matplotlib.use("Agg")
from matplotlib import pyplot  # noqa: E402  the backend must be chosen first

# In the order of drawing.
STYLES = {
    "truth": {"color": "#2ca02c", "linewidth": 3, "alpha": 0.5},
    "raw": {"color": "#999999", "linewidth": 1},
    "tracked": {"color": "#1f4e9c", "linewidth": 1.8},
    "windows": {"color": "#d95f02", "linewidth": 1.2},
}


def centre(left, _top, right, _bottom):
    return (left + right) / 2


def size(left, top, right, bottom):
    return math.sqrt(max(0, (right - left) * (bottom - top)))


def read_ways(path):
    """The rectangles of each way by the number of their frame."""
    ways = {name: {} for name in STYLES}
    with open(path, newline="", encoding="utf-8") as file:
        for row in csv.DictReader(file):
            corners = [int(row[name]) for name in ("left", "top", "right", "bottom")]
            ways[row["way"]][int(row["frame"])] = corners
    return {name: way for name, way in ways.items() if way}


def draw(ways, path):
    figure, panels = pyplot.subplots(2, 1, figsize=(10, 6), sharex=True, layout="constrained")
    for panel, title, value in zip(panels, ("centre, pixels from the left", "size, pixels"),
                                   (centre, size)):
        for name, way in ways.items():
            # A frame without the face is a gap in the line.
            frames = range(min(way), max(way) + 1)
            values = [value(*way[frame]) if frame in way else math.nan for frame in frames]
            panel.plot(frames, values, label=name, **STYLES[name])
        panel.set_ylabel(title)
        panel.grid(color="#dddddd")
    panels[0].legend(loc="upper right", ncols=len(STYLES))
    panels[1].set_xlabel("frame")
    figure.savefig(path)


def main(arguments):
    if len(arguments) != 2:
        print(__doc__, file=sys.stderr)
        return 2
    ways = read_ways(arguments[0])
    if not ways:
        print(f"plot.py: {arguments[0]}: no face in it", file=sys.stderr)
        return 2
    draw(ways, arguments[1])
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
