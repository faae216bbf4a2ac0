"""Pictures of what was measured: a run's losses, a detector's curves and scores."""

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
