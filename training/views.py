"""Windows into the store's pictures: where they look, what they show, which faces are in them.

A view is turned, mirrored and stretched. It shows a face at a wanted size or the picture as a
whole. All work is done on batches, on the store's device.
"""

import math

import torch
from torch.nn import functional

from training.assignment import DOUBTFUL, FACE, NOTHING

SMALLEST_FACE = 7.0  # in input pixels, square root of the area
LEAST_VISIBLE = 0.55  # of a face that is cut off; less is doubtful
MOST_ENLARGED = 4.0
WANTED_FACE_SHARE = 0.65  # of the views


class Views:
    """Windows into pictures: n rows.

    pictures  row in the store
    centres   n x 2, the picture's point in the middle of the tile
    scales    n x 2, tile pixels for one picture pixel along the tile's axes; a negative first one
              mirrors
    angles    n, radians
    """

    def __init__(self, pictures, centres, scales, angles):
        self.pictures, self.centres, self.scales, self.angles = pictures, centres, scales, angles

    def __len__(self):
        return len(self.pictures)

    def select(self, rows):
        return Views(self.pictures[rows], self.centres[rows], self.scales[rows], self.angles[rows])

    def toPicture(self, points):
        """Points n x k x 2 relative to the tile's middle -> picture pixels."""
        x, y = (points / self.scales[:, None]).unbind(2)
        cos, sin = self.angles.cos()[:, None], self.angles.sin()[:, None]
        return torch.stack([cos * x - sin * y, sin * x + cos * y], 2) + self.centres[:, None]

    def project(self, boxes, side):
        """Boxes n x m x 4 of the pictures -> boxes in the tile, as if faces were ellipses."""
        middle = (boxes[..., :2] + boxes[..., 2:]) / 2 - self.centres[:, None]
        half = (boxes[..., 2:] - boxes[..., :2]) / 2
        cos, sin = self.angles.cos()[:, None], self.angles.sin()[:, None]
        x, y = middle.unbind(2)
        middle = torch.stack([cos * x + sin * y, cos * y - sin * x], 2) * self.scales[:, None]
        extent = torch.stack([torch.hypot(cos * half[..., 0], sin * half[..., 1]),
                              torch.hypot(sin * half[..., 0], cos * half[..., 1])], 2)
        extent = extent * self.scales.abs()[:, None]
        return torch.cat([middle - extent, middle + extent], 2) + side / 2


def chooseViews(store, random, count, side, faceSizes):
    """`count` views for tiles of `side` pixels."""
    pictures = random.pick(store.weights, count)
    size = store.sizes[pictures]
    isFace = store.kinds[pictures] == FACE
    chosen = (random.uniform(0, 1, *isFace.shape) * isFace).argmax(1)
    box = store.boxes[pictures, chosen]
    faceSide = (box[:, 2:] - box[:, :2]).clamp(min=1).prod(1).sqrt()
    wanted = isFace.any(1) & random.chance(WANTED_FACE_SHARE, count)

    # The whole picture, or most of it.
    whole = side / (size * random.uniform(0.7, 1.0, count, 2))
    # A face at a wanted size, small ones more often.
    low, high = faceSizes
    middle = math.sqrt(low * high)
    target = torch.where(random.chance(0.6, count), random.logUniform(low, middle, count),
                         random.logUniform(low, high, count))
    stretch = torch.exp(random.uniform(-0.4, 0.4, count))
    ratio = (target / faceSide)[:, None] * torch.stack([stretch, 1 / stretch], 1)
    scales = torch.where(wanted[:, None], ratio, whole)
    # Most views lie inside their pictures.
    cover = (side / size / scales).amax(1, keepdim=True).clamp(min=1)
    inside = ~random.chance(0.08, count)
    scales = torch.where(inside[:, None], scales * cover, scales).clamp(max=MOST_ENLARGED)

    window = side / scales
    aim = (box[:, :2] + box[:, 2:]) / 2 + (random.uniform(0.04, 0.96, count, 2) - 0.5) * window
    anywhere = size / 2 + random.uniform(-0.5, 0.5, count, 2) * (size - window).clamp(min=0)
    centres = torch.where(wanted[:, None], aim, anywhere)
    slack = ((size - window) / 2).clamp(min=0)
    centres = torch.maximum(torch.minimum(centres, size / 2 + slack), size / 2 - slack)

    turned = random.chance(0.25, count)
    angles = random.normal(count) * torch.where(turned, 0.35, 0.06)
    mirror = torch.stack([random.signs(count), torch.ones(count, device=random.device)], 1)
    return Views(pictures, centres, scales * mirror, angles)


def chooseLevels(scales, random):
    """Which level of the store to sample: as a rule one somewhat finer than the tile."""
    octaves = -scales.abs().mean(1).log2() + random.uniform(-0.9, 0.3, len(scales))
    return octaves.floor().clamp(0, 2).long()


def render(store, views, side, levels):
    """Tiles n x 3 x side x side, from 0 to 255; beyond its edge a picture goes on as its edge."""
    at = torch.arange(side, device=views.scales.device) + 0.5 - side / 2
    grid = torch.stack(torch.meshgrid(at, at, indexing="xy"), 2).reshape(1, -1, 2)
    tiles = torch.empty(len(views), 3, side, side, device=views.scales.device)
    for level, pixels in enumerate(store.pixels):
        rows = (levels == level).nonzero()[:, 0]
        if len(rows) == 0:
            continue
        part = views.select(rows)
        size = (store.sizes[part.pictures] / 2 ** level).floor().clamp(min=1)[:, None]
        points = part.toPicture(grid.expand(len(rows), -1, -1)) / 2 ** level
        points = torch.minimum(points.clamp_(min=0.5), size - 0.5)
        points = (points * (2 / pixels.shape[-1]) - 1).view(len(rows), side, side, 2)
        tiles[rows] = functional.grid_sample(pixels[part.pictures].float(), points,
                                             align_corners=False)
    return tiles


def visibleBoxes(boxes, kinds, side):
    """Cuts boxes off at the tile's edge and settles what is left of them."""
    area = (boxes[..., 2:] - boxes[..., :2]).prod(2)
    cut = boxes.clamp(0, side)
    left = (cut[..., 2:] - cut[..., :2]).clamp(min=0).prod(2)
    share = left / area.clamp(min=1e-6)
    kinds = torch.where((kinds == FACE) & ((share < LEAST_VISIBLE) |
                                           (left < SMALLEST_FACE ** 2)), DOUBTFUL, kinds)
    return cut, torch.where((share < 0.05) | (left < 1), NOTHING, kinds)
