#!/usr/bin/python3
"""Prints the measurements as one Markdown table and draws them as a plot.

    render.py RESULTS.json PLOT.svg [DOCUMENT.md]

With a document, its text between the two lines that hold these markers is replaced by the tables:
<!-- bench/report begins --> and <!-- bench/report ends -->
"""

import json
import pathlib
import sys

import matplotlib

matplotlib.use("Agg")
from matplotlib import pyplot  # noqa: E402  the backend must be chosen first

GROUPS = {
    "layer": "Layers, in the order of execution",
    "network": "The whole network",
    "image": "From a frame to the network's picture",
    "formats": "Conversions and packed scaling, 1280x720",
    "detection": "From the network's output to rectangles",
    "frame": "Whole frames",
    "start": "Start, in a fresh process",
}
COLUMNS = ["", "time", "GFLOP/s", "of FMA peak", "bound by", "of bound", "beside it (ours / its)"]


def time_text(nanoseconds):
    for unit, size in (("ms", 1e6), ("us", 1e3)):
        if nanoseconds >= size:
            return f"{nanoseconds / size:.{1 if nanoseconds >= 100 * size else 2}f} {unit}"
    return f"{nanoseconds:.0f} ns"


def percent(share):
    return "" if share is None else f"{100 * share:.0f} %"


def number(value, unit):
    return f"{value:.0f} {unit}".strip() if value >= 100 else f"{value:.3g} {unit}".strip()


def peers_text(row):
    return "; ".join(
        f"{peer['name']} {time_text(peer['time']['median'])} ({peer['ratio']:.2f})"
        for peer in row["peers"]
    )


def row_cells(row):
    name = row["name"] + (f", {row['detail']}" if "detail" in row else "")
    gflops = f"{row['gflops']:.1f}" if "gflops" in row else ""
    return [
        name,
        time_text(row["time"]["median"]),
        gflops,
        percent(row.get("shareOfPeak")),
        row.get("bound", ""),
        percent(row.get("shareOfBound")),
        peers_text(row),
    ]


def markdown(lines):
    """A table whose columns are padded, so that it reads well as plain text, too."""
    widths = [max(len(line[i]) for line in lines) for i in range(len(lines[0]))]

    def pad(line):
        return "| " + " | ".join(cell.ljust(width) for cell, width in zip(line, widths)) + " |"

    rule = ["-" * width for width in widths]
    return "\n".join([pad(lines[0]), pad(rule)] + [pad(line) for line in lines[1:]])


def main_table(results):
    lines = [COLUMNS]
    blank = [""] * (len(COLUMNS) - 1)
    if results["peakGflops"] > 0:
        peak = f"{results['peakGflops']:.1f}"
        frequency = f"{results['gigahertz']:.2f} GHz with two 256-bit units"
        lines.append(["**FMA peak of the core**", "", peak, "100 %", "", "", frequency])
    for group, title in GROUPS.items():
        rows = [row for row in results["rows"] if row["group"] == group]
        if rows:
            lines.append([f"**{title}**"] + blank)
            lines += [row_cells(row) for row in rows]
    lines.append(["**Other quantities**"] + blank)
    for quantity in results["quantities"]:
        value = number(quantity["value"], quantity["unit"])
        lines.append([quantity["name"], value] + blank[1:])
    return markdown(lines)


def target_table(results):
    lines = [["target", "wanted", "measured", ""]]
    for target in results["targets"]:
        wanted = f"{target['goal']} {number(target['limit'], target['unit'])}"
        measured = number(target["value"], target["unit"])
        lines.append([target["name"], wanted, measured, "reached" if target["met"] else "missed"])
    return markdown(lines)


def kind_of(row):
    """What a layer's kernel is like, for the sums."""
    _, layer_type = row["name"].split()
    if layer_type not in ("Conv", "DepthwiseConv"):
        return "all others"
    window, shapes = row["detail"].split(", ")
    source, target = ([int(n) for n in shape.split("x")] for shape in shapes.split(" to "))
    if source[2] == 3:
        return "first convolution, from bytes"
    if layer_type == "DepthwiseConv":
        return f"depthwise, stride {2 if 's2' in window else 1}"
    if window == "1x1":
        return "1x1, 16 outputs and more" if target[2] >= 16 else "1x1, fewer outputs"
    return "3x3"


def kind_table(results):
    """Sums over layers of the same kind, the longest first."""
    layers = [row for row in results["rows"] if row["group"] == "layer"]
    total_work = sum(row.get("operations", 0) for row in layers)
    lines = [["kinds of layers", "number", "time", "of the time", "of the work", "of bound"]]
    groups = {}
    for row in layers:
        groups.setdefault(kind_of(row), []).append(row)

    def time_of(rows):
        return sum(row["time"]["median"] for row in rows)

    for kind, rows in sorted(groups.items(), key=lambda item: -time_of(item[1])):
        time = time_of(rows)
        bound = sum(row["time"]["median"] * row.get("shareOfBound", 0) for row in rows)
        work = sum(row.get("operations", 0) for row in rows)
        shares = [percent(time / time_of(layers)), percent(work / total_work), percent(bound / time)]
        lines.append([kind, str(len(rows)), time_text(time)] + shares)
    return markdown(lines)


def loss_table(results):
    """The layers that take most of the time above the bound."""

    def above(row):
        return row["time"]["median"] * (1 - row.get("shareOfBound", 1))

    layers = sorted((r for r in results["rows"] if r["group"] == "layer"), key=above, reverse=True)
    total = sum(max(above(row), 0) for row in layers)
    lines = [["layers furthest above their bound", "above it", "of all that is above"]]
    for row in layers[:8]:
        share = percent(above(row) / total) if total > 0 else ""
        lines.append([row_cells(row)[0], time_text(above(row)), share])
    return markdown(lines)


def check_table(results):
    lines = [["compared with ours before its times were taken", "largest difference", "allowed"]]
    for check in results["checks"]:
        lines.append([check["name"], f"{check['difference']:.2g}", f"{check['limit']:g}"])
    return markdown(lines)


def draw_bars(panel, title, bars):
    """Horizontal bars from top to bottom: (label, length, color, note) each; None leaves a gap."""
    for place, bar in enumerate(bars):
        if bar is not None:
            label, length, color, note = bar
            panel.barh(place, length, color=color)
            panel.annotate(" " + note, (length, place), va="center")
    labels = {place: bar[0] for place, bar in enumerate(bars) if bar is not None}
    panel.set_yticks(list(labels), list(labels.values()))
    panel.set_ylim(len(bars), -1)
    panel.set_xlim(0, 1.5)
    panel.set_xticks([])
    panel.spines[:].set_visible(False)
    panel.set_title(title, loc="left", weight="bold")


def draw(results, path):
    """Rows beside their peers, as shares of the slowest, and layers, as shares of the longest."""
    beside = []
    for row in results["rows"]:
        if row["group"] not in ("network", "image", "frame") or not row["peers"]:
            continue
        times = [(row["name"], row["time"]["median"], "#2e86c1")]
        times += [(peer["name"], peer["time"]["median"], "#bbbbbb") for peer in row["peers"]]
        slowest = max(time for _, time, _ in times)
        beside += [(name, time / slowest, color, time_text(time)) for name, time, color in times]
        beside.append(None)
    rows = [row for row in results["rows"] if row["group"] == "layer"]
    longest = max(row["time"]["median"] for row in rows)
    layers = []
    for row in rows:
        time = row["time"]["median"]
        share = percent(row.get("shareOfBound", 0))
        note = f"{time_text(time)}, {share} of the bound by {row.get('bound', '')}"
        layers.append((f"{row['name']}, {row.get('detail', '')}", time / longest, "#85c1e9", note))

    pyplot.rcParams["font.size"] = 8
    figure, panels = pyplot.subplots(
        2, 1, figsize=(10, 0.17 * (len(beside) + len(layers))), layout="constrained",
        height_ratios=[len(beside), len(layers)])
    draw_bars(panels[0], "Time beside peers that do the same work (shorter is better)", beside)
    draw_bars(panels[1], "Layers: time, and in dark what the core needs at least", layers)
    bounds = [bar[1] * row.get("shareOfBound", 0) for bar, row in zip(layers, rows)]
    panels[1].barh(range(len(rows)), bounds, color="#1b4f72")
    figure.savefig(path)


def publish(text, document):
    """Puts the tables between the document's markers."""
    begin, end = (f"<!-- bench/report {word} -->" for word in ("begins", "ends"))
    head, rest = document.read_text().split(begin)
    tail = rest.split(end)[1]
    document.write_text(f"{head}{begin}\n\n{text}\n\n{end}{tail}")


def main():
    if len(sys.argv) not in (3, 4):
        sys.exit(__doc__)
    results = json.loads(pathlib.Path(sys.argv[1]).read_text())
    tables = [main_table, kind_table, loss_table, target_table, check_table]
    parts = [f"{results['processor']}, {results['compiler']}"]
    parts += [table(results) for table in tables] + results["notes"]
    text = "\n\n".join(parts)
    print(text)
    if len(sys.argv) == 4:
        publish(text, pathlib.Path(sys.argv[3]))
    draw(results, sys.argv[2])


if __name__ == "__main__":
    main()
