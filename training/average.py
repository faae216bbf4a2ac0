"""Averages weight blocks of runs that began from one another.

    python3 -m training.average --output mean.bin third/weights.bin fourth/weights.bin

Weights that later runs reached from the same ones lie in one valley of the loss; their mean lies
nearer to its floor and moves less with its input (Izmailov and others, "Averaging weights leads to
wider optima and better generalization"). A block that is named twice counts twice. Blocks of runs
that began apart have nothing in common: their mean finds nothing.
"""

import argparse
import pathlib
import sys

import numpy

from training import weight_block
from training.network import FaceNetwork


def mean(paths):
    """The blocks' mean, tensor by tensor, rounded to floats once."""
    shapes = FaceNetwork().block_shapes()
    blocks = [weight_block.read(path, shapes) for path in paths]
    return {name: numpy.mean([block[name] for block in blocks], 0, numpy.float64)
            .astype(numpy.float32) for name in shapes}


def main(arguments=None):
    parser = argparse.ArgumentParser("training.average", description=__doc__.splitlines()[0])
    parser.add_argument("blocks", nargs="+", help="the weight blocks")
    parser.add_argument("--output", required=True, help="where the new block goes")
    options = parser.parse_args(arguments)
    try:
        weight_block.write(pathlib.Path(options.output), mean(options.blocks))
    except (OSError, ValueError) as error:
        print(f"training.average: {error}", file=sys.stderr)
        return 2
    return 0


if __name__ == "__main__":
    sys.exit(main())
