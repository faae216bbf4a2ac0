"""Pictures of what was measured: a run's losses, a detector's curves and scores."""

import json
import pathlib
import sys

import matplotlib
import numpy

matplotlib.use("Agg")
from matplotlib import pyplot  # noqa: E402  the backend must be chosen first

from training import metrics  # noqa: E402


def save(figure, path):
    figure.tight_layout()
    figure.savefig(path, format="png", dpi=100)
    pyplot.close(figure)


def loss_curves(history, path):
    """The losses and the learning rate over the samples seen."""
    figure, axes = pyplot.subplots(figsize=(9, 5))
    samples = [entry["samples"] for entry in history]
    for name in ("score", "box"):
        axes.plot(samples, [entry[name] for entry in history], label=f"{name} loss", linewidth=1)
    axes.set_xlabel("samples")
    axes.set_yscale("log")
    axes.grid(True, alpha=0.3)
    rate = axes.twinx()
    rate.plot(samples, [entry["rate"] for entry in history], color="grey", linestyle=":")
    rate.set_ylabel("learning rate (dotted)")
    axes.legend()
    save(figure, path)


def precision_recall(found, threshold, path):
    """`found`: name of a detector -> its Matches. A panel for each size class.

    A dot marks the module's threshold, on the first detector's curve.
    """
    figure, panels = pyplot.subplots(2, 3, figsize=(13, 8), sharex=True, sharey=True)
    for panel, (name, sizes) in zip(panels.flat, metrics.SIZE_CLASSES.items()):
        for number, (detector, matches) in enumerate(found.items()):
            count = metrics.counted(matches, *sizes)
            precision, recall = metrics.curve(count)
            value = metrics.average_precision(count)
            panel.plot(recall, precision, label=f"{detector}: {value:.3f}", linewidth=1.2)
            if number == 0:
                point = metrics.point_at(count, threshold)
                panel.plot(point.recall, point.precision, "ko", markersize=5)
        panel.set_title(f"faces of {name} pixels: {count.face_count}", fontsize=10)
        panel.legend(fontsize=7, loc="lower left")
        panel.grid(True, alpha=0.3)
        panel.set_xlim(0, 1)
        panel.set_ylim(0, 1.02)
    figure.supxlabel("recall")
    figure.supylabel("precision")
    save(figure, path)


def score_histogram(matches, threshold, path):
    """The scores of faces of 16 pixels and more, of smaller ones and of false alarms."""
    figure, axes = pyplot.subplots(figsize=(9, 5))
    is_face = matches.faces >= 0
    large = is_face.copy()
    large[is_face] = matches.face_sizes[matches.faces[is_face]] >= 16
    alarm = ~is_face & ~matches.ignored
    bins = numpy.linspace(0, 1, 51)
    for name, which in (("faces, 16 pixels and more", large), ("smaller faces", is_face & ~large),
                        ("no faces", alarm)):
        axes.hist(matches.scores[which], bins, label=name, histtype="step", linewidth=1.5)
    axes.axvline(threshold, color="black", linestyle=":")
    axes.set_yscale("log")
    axes.set_xlabel("score")
    axes.set_ylabel("boxes")
    axes.legend()
    save(figure, path)


def accuracy_over_time(measured, path):
    """`measured`: name of a set -> name of a detector -> its points, from the fastest on.

    A point has `label`, `milliseconds` and `ap`. A panel for each set.
    """
    figure, panels = pyplot.subplots(1, len(measured), figsize=(5.5 * len(measured), 4.2),
                                     sharey=True, squeeze=False)
    for panel, (name, detectors) in zip(panels[0], measured.items()):
        for detector, points in detectors.items():
            times = [point["milliseconds"] for point in points]
            line, = panel.plot(times, [point["ap"] for point in points], "o-", label=detector)
            for time, point in zip(times, points):
                panel.annotate(point["label"], (time, point["ap"]), (4, -11), fontsize=8,
                               textcoords="offset points", color=line.get_color())
        panel.set_xscale("log")
        panel.set_xticks([1, 2, 5, 10, 20], ["1", "2", "5", "10", "20"])
        panel.set_xlabel("milliseconds a picture, one thread")
        panel.set_title(name, fontsize=10)
        panel.grid(True, alpha=0.3)
    panels[0][0].set_ylabel("average precision, faces of 8 pixels and more")
    panels[0][0].legend(loc="lower right")
    save(figure, path)


def main(arguments):
    """Draws docs/accuracy.png from what training/README.md tells to measure."""
    source, target = arguments
    accuracy_over_time(json.loads(pathlib.Path(source).read_text())["sets"], target)


if __name__ == "__main__":
    main(sys.argv[1:])
