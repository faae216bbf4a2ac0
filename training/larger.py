"""The network on pictures larger than its own, to measure what a frame's windows would show it.

The convolutions take any size; the priors are laid out for it as for the usual one. A picture keeps
its shape: its longer side is scaled to a given length, and black fills it up to whole cells of the
coarsest grid. The detector itself can't do this.
"""

import cv2
import numpy
import torch

from training import metrics
from training.network import to_images
from training.priors import GRIDS, decode, prior_boxes

CELL = GRIDS[-1][0]
MOST_OVERLAP = 0.3  # of two boxes that are kept


def scaled(image, side):
    """The picture with a longer side of `side` pixels, filled up, and the scales along x and y."""
    height, width = image.shape[:2]
    ratio = side / max(width, height)
    new_width, new_height = (max(1, round(length * ratio)) for length in (width, height))
    method = cv2.INTER_AREA if ratio < 1 else cv2.INTER_LINEAR
    image = cv2.resize(image, (new_width, new_height), interpolation=method)
    image = cv2.copyMakeBorder(image, 0, -new_height % CELL, 0, -new_width % CELL,
                               cv2.BORDER_CONSTANT)
    return image, numpy.float32([new_width / width, new_height / height])


def suppressed(boxes, scores):
    """Rows of the boxes that no better one overlaps, best first."""
    rows = list(numpy.argsort(-scores, kind="stable"))
    kept = []
    while rows:
        best, rows = rows[0], numpy.array(rows[1:], int)
        kept.append(best)
        overlap = metrics.overlaps(boxes[best][None], boxes[rows])[0]
        rows = list(rows[overlap <= MOST_OVERLAP])
    return kept


def detect(network, image, side, lowest_score):
    """Boxes n x 4, x1 y1 x2 y2 in pixels of the image, and scores, best first."""
    picture, scales = scaled(image, side)
    with torch.no_grad():
        logits, offsets = network(to_images(picture[None]))
        boxes = decode(offsets[0], prior_boxes(picture.shape[1], picture.shape[0])).numpy()
        scores = logits[0].softmax(1)[:, 1].numpy()
    boxes, scores = boxes[scores > lowest_score], scores[scores > lowest_score]
    rows = suppressed(boxes, scores)
    return boxes[rows] / numpy.tile(scales, 2), scores[rows]
