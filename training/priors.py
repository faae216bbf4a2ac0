"""The prior boxes, and boxes as offsets from them.

Three grids of square priors, fine to coarse, row by row, sizes of a cell next to each other. Boxes
are x1, y1, x2, y2 in pixels of the network's input here.
"""

import torch

from training.contract import PRIOR_COUNT, SIDE

GRIDS = [(8, (8, 16, 32)), (16, (64, 96)), (32, (128, 192))]  # stride, sizes
CENTRE_VARIANCE, SIZE_VARIANCE = 0.1, 0.2


def prior_boxes(width=SIDE, height=SIDE):
    """2088 x 4: centre x, centre y, width, height in input pixels.

    An input of another size, in multiples of the coarsest stride, has another number of them.
    """
    rows = [((column + 0.5) * stride, (row + 0.5) * stride, size, size)
            for stride, sizes in GRIDS
            for row in range(height // stride) for column in range(width // stride)
            for size in sizes]
    assert len(rows) == PRIOR_COUNT or (width, height) != (SIDE, SIDE)
    return torch.tensor(rows)


def corners(boxes):
    """Centre and size -> corners."""
    return torch.cat([boxes[..., :2] - boxes[..., 2:] / 2, boxes[..., :2] + boxes[..., 2:] / 2], -1)


def decode(offsets, priors):
    """Offsets ... x 2088 x 4 -> boxes."""
    centre = offsets[..., :2] * CENTRE_VARIANCE * priors[:, 2:] + priors[:, :2]
    size = torch.exp(offsets[..., 2:] * SIZE_VARIANCE) * priors[:, 2:]
    return corners(torch.cat([centre, size], -1))


def encode(boxes, priors):
    """Boxes -> offsets; both n x 4, each with its own prior."""
    centre = (boxes[..., :2] + boxes[..., 2:]) / 2
    size = (boxes[..., 2:] - boxes[..., :2]).clamp(min=1)
    return torch.cat([(centre - priors[..., :2]) / (CENTRE_VARIANCE * priors[..., 2:]),
                      torch.log(size / priors[..., 2:]) / SIZE_VARIANCE], -1)


def overlaps(a, b):
    """Intersections and areas of boxes a (n x 4) and b (k x m x 4): k x n x m, n, k x m.

    Coordinate by coordinate: vectors of two would take six times as long.
    """
    def shared(low, high):
        side = torch.minimum(a[:, None, high], b[:, None, :, high])
        return side.sub_(torch.maximum(a[:, None, low], b[:, None, :, low])).clamp_(min=0)

    def area(boxes):
        return (boxes[..., 2] - boxes[..., 0]) * (boxes[..., 3] - boxes[..., 1])

    return shared(0, 2).mul_(shared(1, 3)), area(a), area(b)
