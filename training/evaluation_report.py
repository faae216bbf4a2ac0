"""The figures of an evaluation as text: Markdown tables."""

from training.contract import MOST_REPORTED, THRESHOLD


def shown(value):
    if isinstance(value, str):
        return value
    if isinstance(value, int):
        return str(value)
    return "-" if value != value else f"{value:.4f}" if abs(value) < 0.1 else f"{value:.3f}"


def table(title, columns, rows):
    """A Markdown table with the columns padded to a common width."""
    cells = [columns] + [[shown(value) for value in row] for row in rows]
    widths = [max(len(row[i]) for row in cells) for i in range(len(columns))]
    lines = ["| " + " | ".join(f"{cell:<{width}}" if i == 0 else f"{cell:>{width}}"
                               for i, (cell, width) in enumerate(zip(row, widths))) + " |"
             for row in cells]
    rule = "|" + "|".join("-" * (w + 1) + ("-" if i == 0 else ":")
                          for i, w in enumerate(widths)) + "|"
    return "\n".join([f"\n{title}\n", lines[0], rule, *lines[1:]])


def sizeTable(title, sizes):
    return table(title, ["face size", "faces", "AP", "precision", "recall", "F1", "best F1", "at"],
                 [[name, *row.values()] for name, row in sizes.items()])


def asText(figures):
    """All tables as text."""
    def conditionTable(title, summaries):
        return table(title,
                     ["", "faces >= 8", "AP", "faces >= 16", "AP", "precision", "recall", "F1"],
                     [[name, *row.values()] for name, row in
                      {"as it is": figures["pictureAsIs"], **summaries}.items()])

    parts = [
        f"{figures['data']}: {figures['pictures']} pictures, {figures['facelessPictures']} of them "
        f"faceless\nweights {figures['weightsDigest'][:16]}, data {figures['dataDigest'][:16]}",
        sizeTable(f"By size in pixels of the network's input, at {THRESHOLD}", figures["sizes"]),
        f"\nFalse alarms at {THRESHOLD}: "
        f"{shown(figures['falseAlarmsPerFacelessPicture'])} a faceless picture",
        f"With at most {MOST_REPORTED} boxes a picture, as the module reports them: on faces of 16 "
        f"pixels and more precision {shown(figures['reported']['precision'])}, recall "
        f"{shown(figures['reported']['recall'])}",
        conditionTable(f"By aspect of the frame; precision, recall and F1 at {THRESHOLD} on faces "
                       "of 16 pixels and more", figures["aspects"]),
        conditionTable("Spoiled pictures, likewise", figures["faults"]),
        table(f"Steadiness of faces of {figures['smallestSteady']} pixels and more: movement of "
              "the edge that moves most, relative to the face's size",
              ["", "faces", "moved", "99th percentile", "score change", "99th percentile",
               f"flips at {THRESHOLD}"],
              [[name, *row.values()] for name, row in figures["steadiness"].items()])]
    for name, peer in figures["peers"].items():
        parts += [sizeTable(f"{name}, at its best threshold for faces of 16 pixels and more",
                            peer["sizes"]),
                  "\nFalse alarms there: "
                  f"{shown(peer['falseAlarmsPerFacelessPicture'])} a faceless picture"]
    return "\n".join(parts)
