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


def size_table(title, sizes):
    return table(title, ["face size", "faces", "AP", "precision", "recall", "F1", "best F1", "at"],
                 [[name, *row.values()] for name, row in sizes.items()])


def as_text(figures):
    """All tables as text."""
    def condition_table(title, summaries):
        return table(title,
                     ["", "faces >= 8", "AP", "faces >= 16", "AP", "precision", "recall", "F1"],
                     [[name, *row.values()] for name, row in
                      {"as it is": figures["picture_as_is"], **summaries}.items()])

    parts = [
        f"{figures['data']}: {figures['pictures']} pictures, {figures['faceless_pictures']} of "
        f"them faceless\nweights {figures['weights_digest'][:16]}, "
        f"data {figures['data_digest'][:16]}",
        size_table(f"By size in pixels of the network's input, at {THRESHOLD}", figures["sizes"]),
        f"\nFalse alarms at {THRESHOLD}: "
        f"{shown(figures['false_alarms_per_faceless_picture'])} a faceless picture",
        f"With at most {MOST_REPORTED} boxes a picture, as the module reports them: on faces of 16 "
        f"pixels and more precision {shown(figures['reported']['precision'])}, recall "
        f"{shown(figures['reported']['recall'])}",
        condition_table(f"By aspect of the frame; precision, recall and F1 at {THRESHOLD} on faces "
                       "of 16 pixels and more", figures["aspects"]),
        condition_table("Pictures that keep their shape, with the longer side scaled to 192 pixels "
                        "or as many as it says; likewise, sizes as stretched", figures["natural"]),
        f"\nFalse alarms where the shape is kept: "
        f"{shown(figures['false_alarms_aspect_kept'])} a faceless picture",
        table("By pose, where it is known: faces of 8 pixels and more",
              ["", "faces", f"found at {THRESHOLD}"],
              [[name, *row.values()] for name, row in figures["poses"].items()]),
        condition_table("Spoiled pictures, likewise", figures["faults"]),
        table(f"Steadiness of faces of {figures['smallest_steady']} pixels and more: movement of "
              "the edge that moves most, relative to the face's size",
              ["", "faces", "moved", "99th percentile", "score change", "99th percentile",
               f"flips at {THRESHOLD}"],
              [[name, *row.values()] for name, row in figures["steadiness"].items()])]
    if figures["windows"]:
        parts.append(table(
            f"Through windows, at {THRESHOLD}: faces of 8 pixels and more of the picture stretched "
            "to the network's input; the median of the windows' times on one thread",
            ["most windows", "windows", "ms", "AP", "precision", "recall",
             "false alarms a faceless picture"],
            [[name, *row.values()] for name, row in figures["windows"].items()]))
    if figures["clips"]:
        parts.append(table(
            f"Moving scenes, each frame on its own, at {THRESHOLD}",
            ["", "faces", "found", "longest gap in frames", "comes back a minute",
             "false boxes a minute"],
            [[name, *row.values()] for name, row in figures["clips"].items()]))
    for name, peer in figures["peers"].items():
        parts += [size_table(f"{name}, at its best threshold for faces of 16 pixels and more",
                            peer["sizes"]),
                  "\nFalse alarms there: "
                  f"{shown(peer['false_alarms_per_faceless_picture'])} a faceless picture"]
    return "\n".join(parts)
