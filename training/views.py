"""Windows into the store's pictures: where they look, what they show, which faces are in them.

A view is turned, mirrored and stretched, a lot or hardly at all. It shows a face at a wanted size
or the picture as a whole. All work is done on batches, on the store's device.
"""

import torch
from torch.nn import functional

from training.assignment import DOUBTFUL, FACE, NOTHING

SMALLEST_FACE = 7.0  # in input pixels, square root of the area
LEAST_VISIBLE = 0.55  # of a face that is cut off; less is doubtful
MOST_ENLARGED = 3.0
FACE_SHARE, EMPTY_SHARE = 0.62, 0.25  # of the views: a face at a wanted size, no face at all
FACES_TRIED = 8
BEYOND_EDGE_SHARE = 0.25  # of the views may show more than their picture
MOST_STRETCHED = 0.09, 0.4  # logarithms each way, of views of natural shape and of others


class Views:
    """Windows into pictures: n rows.

    pictures  row in the store
    centres   n x 2, the picture's point in the middle of the tile
    scales    n x 2, tile pixels for one picture pixel along the tile's axes; a negative first one
              mirrors
    angles    n, radians
    black     n: whether it is black beyond the picture's edge, which goes on otherwise
    """

    def __init__(self, pictures, centres, scales, angles, black=None):
        self.pictures, self.centres, self.scales, self.angles = pictures, centres, scales, angles
        self.black = torch.zeros_like(pictures, dtype=torch.bool) if black is None else black

    def __len__(self):
        return len(self.pictures)

    def to_picture(self, points):
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


def choose_shapes(random, count, natural):
    """Which views show their picture in its natural shape, and stretches along x and y: n x 2."""
    is_natural = random.chance(natural, count)
    most = torch.where(is_natural, MOST_STRETCHED[0], MOST_STRETCHED[1])
    bend = random.uniform(-1, 1, count) * most
    return is_natural, torch.stack([bend, -bend], 1).exp()


def choose_faces(store, random, stretches, inside, side, face_sizes):
    """A face for each view and the scale at which it has a size from an even draw in log size.

    Of some faces drawn the first one is taken that can have the size: a large face in a small
    picture can't be small in a view that the picture has to fill.
    """
    count = len(stretches)
    drawn = random.pick(store.face_weights, count * FACES_TRIED).view(count, FACES_TRIED)
    row, box = store.faces[drawn].unbind(2)
    corners = store.boxes[row, box]
    shape = natural_stretches(store, row, stretches[:, None])
    face_side = ((corners[..., 2:] - corners[..., :2]).clamp(min=1) * shape).prod(2).sqrt()
    fills = side / (store.sizes[row] * shape)
    least = torch.where(inside[:, None], fills.amax(2), fills.amin(2))
    target = random.log_uniform(*face_sizes, count)[:, None]
    scale = torch.maximum((target / face_side).clamp(max=MOST_ENLARGED), least)
    missed = (scale * face_side / target).log().abs()
    best = (missed < 0.05).float().argmax(1)  # the first one
    best = torch.where((missed < 0.05).any(1), best, missed.argmin(1))[:, None]
    return (row.gather(1, best)[:, 0], corners.gather(1, best[..., None].expand(-1, 1, 4))[:, 0],
            scale.gather(1, best))


def natural_stretches(store, pictures, stretches):
    """Stretches of a natural shape -> stretches of the picture as it is stored; the same area."""
    root = store.widths[pictures].sqrt()
    return stretches * torch.stack([root, 1 / root], -1)


def choose_pictures(store, random, count):
    """Pictures to be shown as a whole or anywhere; a fixed share of them without faces."""
    bare = torch.zeros_like(store.weights)
    bare[store.empty()] = 1
    without, others = store.weights * bare, store.weights * (1 - bare)
    if not (without.any() and others.any()):
        return random.pick(store.weights, count)
    return torch.where(random.chance(EMPTY_SHARE / (1 - FACE_SHARE), count),
                       random.pick(without, count), random.pick(others, count))


def choose_views(store, random, count, side, face_sizes, natural=0.5):
    """`count` views for tiles of `side` pixels; a share of `natural` isn't stretched."""
    is_natural, stretches = choose_shapes(random, count, natural)
    inside = ~random.chance(BEYOND_EDGE_SHARE, count)

    # Anything at all: the whole picture, or most of it.
    pictures = choose_pictures(store, random, count)
    shape = natural_stretches(store, pictures, stretches)
    size = store.sizes[pictures]
    fills = side / (size * shape)
    upright = torch.where(inside, fills.amax(1), fills.amin(1))[:, None] * shape
    scales = torch.where(is_natural[:, None], upright * random.uniform(1.0, 1.5, count, 1),
                         side / (size * random.uniform(0.7, 1.0, count, 2)))
    centres = size / 2 + random.uniform(-0.5, 0.5, count, 2) * (size - side / scales).clamp(min=0)

    # A face.
    if len(store.faces):
        wanted = random.chance(FACE_SHARE, count)
        row, box, scale = choose_faces(store, random, stretches, inside, side, face_sizes)
        closer = scale * natural_stretches(store, row, stretches)
        aim = ((box[:, :2] + box[:, 2:]) / 2 +
               (random.uniform(0.04, 0.96, count, 2) - 0.5) * side / closer)
        pictures = torch.where(wanted, row, pictures)
        scales = torch.where(wanted[:, None], closer, scales)
        centres = torch.where(wanted[:, None], aim, centres)

    # Most views lie inside their pictures.
    size = store.sizes[pictures]
    slack = (size - side / scales) / 2
    # Where the picture is the smaller one, it lies anywhere in the view.
    loose = random.uniform(-1, 1, count, 2) * slack.clamp(max=0)
    slack = slack.clamp(min=0)
    centres = torch.maximum(torch.minimum(centres, size / 2 + slack), size / 2 - slack) + loose

    turned = random.chance(0.25, count)
    angles = random.normal(count) * torch.where(turned, 0.35, 0.06)
    mirror = torch.stack([random.signs(count), torch.ones(count, device=random.device)], 1)
    return Views(pictures, centres, scales * mirror, angles, random.chance(0.6, count))


def choose_levels(scales, random):
    """Which level of the store to sample: as a rule one somewhat finer than the tile."""
    octaves = -scales.abs().mean(1).log2() + random.uniform(-0.9, 0.3, len(scales))
    return octaves.floor().clamp(0, 2).long()


def render(store, views, side, levels):
    """Tiles n x 3 x side x side, from 0 to 255."""
    at = torch.arange(side, device=views.scales.device) + 0.5 - side / 2
    grid = torch.stack(torch.meshgrid(at, at, indexing="xy"), 2).reshape(1, -1, 2)
    points = views.to_picture(grid.expand(len(views), -1, -1)) / 2.0 ** levels[:, None, None]
    tiles = []
    for picture, level, place, black in zip(views.pictures.tolist(), levels.tolist(), points,
                                            views.black.tolist()):
        pixels = store.pixels[picture][level]
        size = torch.tensor([pixels.shape[2], pixels.shape[1]], device=pixels.device)
        place = (place * (2 / size) - 1).view(1, side, side, 2)
        tiles.append(functional.grid_sample(pixels[None].float(), place, align_corners=False,
                                            padding_mode="zeros" if black else "border"))
    return torch.cat(tiles)


def visible_boxes(boxes, kinds, side):
    """Cuts boxes off at the tile's edge and settles what is left of them."""
    area = (boxes[..., 2:] - boxes[..., :2]).prod(2)
    cut = boxes.clamp(0, side)
    left = (cut[..., 2:] - cut[..., :2]).clamp(min=0).prod(2)
    share = left / area.clamp(min=1e-6)
    kinds = torch.where((kinds == FACE) & ((share < LEAST_VISIBLE) |
                                           (left < SMALLEST_FACE ** 2)), DOUBTFUL, kinds)
    return cut, torch.where((share < 0.05) | (left < 1), NOTHING, kinds)
