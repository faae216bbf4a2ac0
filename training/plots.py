"""Pictures of what was measured."""

import matplotlib

matplotlib.use("Agg")
from matplotlib import pyplot  # noqa: E402  the backend must be chosen first


def lossCurves(history, path):
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
    figure.tight_layout()
    figure.savefig(path, format="png", dpi=100)
    pyplot.close(figure)
