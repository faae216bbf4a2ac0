"""Pictures turned into scenes: what stands before the camera, with its boxes.

    store --views--> where each view looks --render--> square tiles --mosaic--> scenes
          --paste--> scenes with small faces, masks and things in front

A view is a window into a picture, turned, mirrored and stretched. It shows a face at a wanted size
or the picture as a whole. All work is done on batches, on the store's device.
"""

import math

import torch
from torch.nn import functional

from training.assignment import DOUBTFUL, FACE, NOTHING
from training.network import SIDE

SMALLEST_FACE = 7.0  # in input pixels, square root of the area
LEAST_VISIBLE = 0.55  # of a face that is cut off; less is doubtful
MOST_ENLARGED = 4.0

# Share of the scenes, tiles along a side, range of the wanted face sizes in input pixels.
LAYOUTS = [(0.74, 1, (8, 190)), (0.15, 2, (8, 64)), (0.11, 3, (7.5, 36))]
WANTED_FACE_SHARE = 0.65

PATCH = 64  # side of the square that a paste is rendered in
PASTE_ROUNDS = [("face", 0.4), ("face", 0.3), ("thing", 0.35)]
COVERED_DOUBT, COVERED_GONE = 0.3, 0.9  # covered parts of a face


class Random:
    """Random tensors from one generator."""

    def __init__(self, device, seed):
        self.device = device
        self.generator = torch.Generator(device)
        self.generator.manual_seed(seed)

    def uniform(self, low, high, *shape):
        return torch.rand(*shape, generator=self.generator, device=self.device) * (high - low) + low

    def logUniform(self, low, high, *shape):
        return torch.exp(self.uniform(math.log(low), math.log(high), *shape))

    def normal(self, *shape):
        return torch.randn(*shape, generator=self.generator, device=self.device)

    def chance(self, share, *shape):
        return torch.rand(*shape, generator=self.generator, device=self.device) < share

    def below(self, end, *shape):
        return torch.randint(end, shape, generator=self.generator, device=self.device)

    def pick(self, weights, count):
        return torch.multinomial(weights, count, True, generator=self.generator)

    def signs(self, *shape):
        return self.chance(0.5, *shape).float() * 2 - 1


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

    def select(self, mask):
        return Views(self.pictures[mask], self.centres[mask], self.scales[mask], self.angles[mask])

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


def mosaic(store, random, count, tilesAlong, faceSizes):
    """`count` scenes of tilesAlong x tilesAlong views each, with boxes and kinds."""
    side = SIDE // tilesAlong
    views = chooseViews(store, random, count * tilesAlong ** 2, side, faceSizes)
    tiles = render(store, views, side, chooseLevels(views.scales, random))
    boxes, kinds = visibleBoxes(views.project(store.boxes[views.pictures], side),
                                store.kinds[views.pictures], side)
    grid = torch.arange(tilesAlong ** 2, device=random.device).repeat(count)
    corner = torch.stack([grid % tilesAlong, grid // tilesAlong], 1) * side
    boxes = boxes + corner.repeat(1, 2)[:, None]
    scenes = (tiles.view(count, tilesAlong, tilesAlong, 3, side, side)
              .permute(0, 3, 1, 4, 2, 5).reshape(count, 3, SIDE, SIDE))
    return scenes, boxes.reshape(count, -1, 4), kinds.reshape(count, -1)


def keepLargest(boxes, kinds, count):
    """At most `count` boxes a scene: faces first, larger ones first."""
    area = (boxes[..., 2:] - boxes[..., :2]).clamp(min=0).prod(2)
    rank = torch.where(kinds == FACE, area + 1e6, torch.where(kinds == DOUBTFUL, area + 1, -1.0))
    order = rank.topk(min(count, rank.shape[1]), 1)[1]
    boxes = boxes.gather(1, order[..., None].expand(-1, -1, 4))
    kinds = kinds.gather(1, order)
    missing = count - boxes.shape[1]
    return functional.pad(boxes, (0, 0, 0, missing)), functional.pad(kinds, (0, missing))


class Pastes:
    """Small pictures of faces and things, laid over scenes."""

    def __init__(self, store):
        self.store = store
        self.faces = store.largeFaces(24)
        self.things = store.empty()

    def addTo(self, random, scenes, boxes, kinds):
        """Changes the scenes; gives boxes and kinds with the pasted faces at the end."""
        for what, share in PASTE_ROUNDS:
            rows = random.chance(share, len(scenes)).nonzero()[:, 0]
            if len(rows) == 0 or len(self.faces if what == "face" else self.things) == 0:
                continue
            if what == "face":
                views, half = self.chooseFaces(random, len(rows))
                middle = random.uniform(6, SIDE - 6, len(rows), 2)
            else:
                views, half = self.chooseThings(random, len(rows))
                middle = self.chooseTargets(random, boxes[rows], kinds[rows], half)
            middle = middle.round()
            patches, masks, reach = self.renderPatches(random, views, half, what)
            kinds = self.cover(rows, middle, reach, boxes, kinds, what)
            for row, at, patch, mask in zip(rows.tolist(), middle.int().tolist(), patches, masks):
                layOver(scenes[row], patch, mask, *at)
            if what == "face":
                added = torch.zeros(len(scenes), 1, 4, device=scenes.device)
                added[rows, 0] = torch.cat([middle - half, middle + half], 1)
                kind = torch.zeros(len(scenes), 1, dtype=kinds.dtype, device=scenes.device)
                kind[rows] = FACE
                added, kind = visibleBoxes(added, kind, SIDE)
                boxes, kinds = torch.cat([boxes, added], 1), torch.cat([kinds, kind], 1)
        return boxes, kinds

    def chooseFaces(self, random, count):
        """Views with a face in the middle, and half of its extents n x 2."""
        chosen = self.faces[random.below(len(self.faces), count)]
        box = self.store.boxes[chosen[:, 0], chosen[:, 1]]
        extent = box[:, 2:] - box[:, :2]
        size = random.logUniform(7.5, 32, count)
        stretch = torch.exp(random.uniform(-0.35, 0.35, count))
        scales = (size / extent.prod(1).sqrt())[:, None] * torch.stack([stretch, 1 / stretch], 1)
        angles = random.normal(count) * 0.12
        mirrored = torch.stack([scales[:, 0] * random.signs(count), scales[:, 1]], 1)
        views = Views(chosen[:, 0], (box[:, :2] + box[:, 2:]) / 2, mirrored, angles)
        projected = views.project(box[:, None], 0)[:, 0]
        return views, (projected[:, 2:] - projected[:, :2]) / 2

    def chooseThings(self, random, count):
        """Views into pictures without faces, and half extents."""
        pictures = self.things[random.below(len(self.things), count)]
        half = random.logUniform(5, 26, count)[:, None] * torch.exp(
            random.uniform(-0.4, 0.4, count, 2))
        scales = random.logUniform(0.2, 1.2, count)[:, None].expand(-1, 2)
        centres = self.store.sizes[pictures] * random.uniform(0.2, 0.8, count, 2)
        return Views(pictures, centres, scales, random.normal(count)), half

    def chooseTargets(self, random, boxes, kinds, half):
        """Half of the things go anywhere, half hide part of a face, its lower part as a rule."""
        count = len(boxes)
        isFace = kinds == FACE
        chosen = (random.uniform(0, 1, *isFace.shape) * isFace).argmax(1)
        box = boxes[torch.arange(count, device=boxes.device), chosen]
        extent = box[:, 2:] - box[:, :2]
        onFace = isFace.any(1) & random.chance(0.5, count)
        half[onFace] = extent[onFace] * random.uniform(0.2, 0.5, int(onFace.sum()), 2)
        half.clamp_(max=PATCH / 2 - 2)
        below = torch.stack([random.uniform(-0.3, 0.3, count), random.uniform(0.0, 0.5, count)], 1)
        target = (box[:, :2] + box[:, 2:]) / 2 + extent * below
        return torch.where(onFace[:, None], target, random.uniform(0, SIDE, count, 2))

    def renderPatches(self, random, views, half, what):
        """Patches n x 3 x PATCH x PATCH, masks n x 1 x PATCH x PATCH, half of the masks' extents."""
        count = len(views)
        levels = chooseLevels(views.scales, random)
        patches = render(self.store, views, PATCH, levels)
        reach = half
        if what == "face":
            reach = (half * random.uniform(1.1, 2.0, count, 1)).clamp(max=PATCH / 2 - 1)
        else:
            plain = random.chance(0.5, count)
            patches[plain] = random.uniform(0, 255, int(plain.sum()), 3, 1, 1)
        at = torch.arange(PATCH, device=half.device) + 0.5 - PATCH / 2
        x, y = at[None, None, :] / reach[:, 0, None, None], at[None, :, None] / reach[:, 1, None, None]
        x, y = torch.broadcast_tensors(x, y)
        round_ = random.chance(0.5, count)[:, None, None]
        distance = torch.where(round_, torch.hypot(x, y), torch.maximum(x.abs(), y.abs()))
        softness = random.logUniform(0.02, 0.4, count)[:, None, None]
        masks = ((1 - distance) / softness).clamp(0, 1)
        return patches, masks[:, None], reach

    def cover(self, rows, middle, reach, boxes, kinds, what):
        """Faces that a paste hides become doubtful or go."""
        low = torch.maximum(boxes[rows, :, :2], (middle - reach)[:, None])
        high = torch.minimum(boxes[rows, :, 2:], (middle + reach)[:, None])
        hidden = (high - low).clamp(min=0).prod(2)
        area = (boxes[rows, :, 2:] - boxes[rows, :, :2]).prod(2).clamp(min=1e-6)
        share = hidden / area
        limit = COVERED_DOUBT if what == "face" else COVERED_DOUBT + 0.2
        kind = kinds[rows]
        kind = torch.where((kind == FACE) & (share > limit), DOUBTFUL, kind)
        kinds = kinds.clone()
        kinds[rows] = torch.where(share > COVERED_GONE, NOTHING, kind)
        return kinds


def layOver(scene, patch, mask, x, y):
    """Blends a patch into a scene around the point x, y."""
    left, top = x - PATCH // 2, y - PATCH // 2
    x0, y0 = max(left, 0), max(top, 0)
    x1, y1 = min(left + PATCH, SIDE), min(top + PATCH, SIDE)
    if x0 >= x1 or y0 >= y1:
        return
    part = (slice(y0 - top, y1 - top), slice(x0 - left, x1 - left))
    target = scene[:, y0:y1, x0:x1]
    target += mask[:, part[0], part[1]] * (patch[:, part[0], part[1]] - target)


class Scenes:
    """Makes batches of scenes from a store, with or without pastes."""

    def __init__(self, store, mostBoxes=40, withPastes=True):
        self.store = store
        self.pastes = Pastes(store) if withPastes else None
        self.mostBoxes = mostBoxes

    def batch(self, random, count):
        """Scenes count x 3 x 192 x 192, planes R, G, B from 0 to 255; boxes and kinds."""
        counts = [round(share * count) for share, _, _ in LAYOUTS[1:]]
        counts = [count - sum(counts)] + counts
        parts = [(scenes, *keepLargest(boxes, kinds, self.mostBoxes))
                 for layoutCount, (_, tilesAlong, faceSizes) in zip(counts, LAYOUTS) if layoutCount
                 for scenes, boxes, kinds in [
                     mosaic(self.store, random, layoutCount, tilesAlong, faceSizes)]]
        scenes, boxes, kinds = (torch.cat(part) for part in zip(*parts))
        if self.pastes:
            boxes, kinds = self.pastes.addTo(random, scenes, boxes, kinds)
        return scenes, *keepLargest(boxes, kinds, self.mostBoxes)
