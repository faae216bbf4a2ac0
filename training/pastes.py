"""Small pictures of faces and things, laid over scenes: small faces, masks and things in front."""

import torch

from training.assignment import DOUBTFUL, FACE, NOTHING
from training.contract import SIDE
from training.views import Views, choose_levels, render, visible_boxes

PATCH = 64  # side of the square that a paste is rendered in
ROUNDS = [("face", 0.4), ("face", 0.3), ("thing", 0.35)]  # what, on how many of the scenes
COVERED_GONE = 0.9  # of a face; then it is none any more
COVERED_DOUBT = {"face": 0.3, "thing": 0.5}  # more of a face covered by it makes the face doubtful


class Pastes:
    """Small pictures of faces and things, laid over scenes."""

    def __init__(self, store):
        self.store = store
        self.faces = store.large_faces(24)
        self.things = store.empty()

    def add_to(self, random, scenes, boxes, kinds):
        """Changes the scenes; returns boxes and kinds with the pasted faces at the end."""
        for what, share in ROUNDS:
            rows = random.chance(share, len(scenes)).nonzero()[:, 0]
            if len(rows) == 0 or len(self.faces if what == "face" else self.things) == 0:
                continue
            if what == "face":
                views, half = self.choose_faces(random, len(rows))
                middle = random.uniform(6, SIDE - 6, len(rows), 2)
            else:
                views, half = self.choose_things(random, len(rows))
                middle = self.choose_targets(random, boxes[rows], kinds[rows], half)
            middle = middle.round()
            patches, masks, reach = self.render_patches(random, views, half, what)
            kinds = self.cover(rows, middle, reach, boxes, kinds, what)
            for row, (x, y), patch, mask in zip(rows.tolist(), middle.int().tolist(), patches,
                                                masks):
                lay_over(scenes[row], patch, mask, x, y)
            if what == "face":
                added = torch.zeros(len(scenes), 1, 4, device=scenes.device)
                added[rows, 0] = torch.cat([middle - half, middle + half], 1)
                kind = torch.zeros(len(scenes), 1, dtype=kinds.dtype, device=scenes.device)
                kind[rows] = FACE
                added, kind = visible_boxes(added, kind, SIDE)
                boxes, kinds = torch.cat([boxes, added], 1), torch.cat([kinds, kind], 1)
        return boxes, kinds

    def choose_faces(self, random, count):
        """Views with a face in the middle, and half of its extents n x 2."""
        chosen = self.faces[random.below(len(self.faces), count)]
        box = self.store.boxes[chosen[:, 0], chosen[:, 1]]
        extent = box[:, 2:] - box[:, :2]
        size = random.log_uniform(7.5, 32, count)
        stretch = torch.exp(random.uniform(-0.35, 0.35, count))
        scales = (size / extent.prod(1).sqrt())[:, None] * torch.stack([stretch, 1 / stretch], 1)
        angles = random.normal(count) * 0.12
        mirrored = torch.stack([scales[:, 0] * random.signs(count), scales[:, 1]], 1)
        views = Views(chosen[:, 0], (box[:, :2] + box[:, 2:]) / 2, mirrored, angles)
        projected = views.project(box[:, None], 0)[:, 0]
        return views, (projected[:, 2:] - projected[:, :2]) / 2

    def choose_things(self, random, count):
        """Views into pictures without faces, and half extents."""
        pictures = self.things[random.below(len(self.things), count)]
        half = random.log_uniform(5, 26, count)[:, None] * torch.exp(
            random.uniform(-0.4, 0.4, count, 2))
        scales = random.log_uniform(0.2, 1.2, count)[:, None].expand(-1, 2)
        centres = self.store.sizes[pictures] * random.uniform(0.2, 0.8, count, 2)
        return Views(pictures, centres, scales, random.normal(count)), half

    def choose_targets(self, random, boxes, kinds, half):
        """Half of the things go anywhere, half hide part of a face, its lower part as a rule."""
        count = len(boxes)
        is_face = kinds == FACE
        chosen = (random.uniform(0, 1, *is_face.shape) * is_face).argmax(1)
        box = boxes[torch.arange(count, device=boxes.device), chosen]
        extent = box[:, 2:] - box[:, :2]
        on_face = is_face.any(1) & random.chance(0.5, count)
        half[on_face] = extent[on_face] * random.uniform(0.2, 0.5, int(on_face.sum()), 2)
        half.clamp_(max=PATCH / 2 - 2)
        below = torch.stack([random.uniform(-0.3, 0.3, count), random.uniform(0.0, 0.5, count)], 1)
        target = (box[:, :2] + box[:, 2:]) / 2 + extent * below
        return torch.where(on_face[:, None], target, random.uniform(0, SIDE, count, 2))

    def render_patches(self, random, views, half, what):
        """Patches n x 3 x PATCH x PATCH, masks n x 1 x PATCH x PATCH, the masks' half extents."""
        count = len(views)
        levels = choose_levels(views.scales, random)
        patches = render(self.store, views, PATCH, levels)
        reach = half
        if what == "face":
            reach = (half * random.uniform(1.1, 2.0, count, 1)).clamp(max=PATCH / 2 - 1)
        else:
            plain = random.chance(0.5, count)
            patches[plain] = random.uniform(0, 255, int(plain.sum()), 3, 1, 1)
        at = torch.arange(PATCH, device=half.device) + 0.5 - PATCH / 2
        x, y = torch.broadcast_tensors(at[None, None, :] / reach[:, 0, None, None],
                                       at[None, :, None] / reach[:, 1, None, None])
        is_round = random.chance(0.5, count)[:, None, None]
        distance = torch.where(is_round, torch.hypot(x, y), torch.maximum(x.abs(), y.abs()))
        softness = random.log_uniform(0.02, 0.4, count)[:, None, None]
        masks = ((1 - distance) / softness).clamp(0, 1)
        return patches, masks[:, None], reach

    def cover(self, rows, middle, reach, boxes, kinds, what):
        """Faces that a paste hides become doubtful or go."""
        low = torch.maximum(boxes[rows, :, :2], (middle - reach)[:, None])
        high = torch.minimum(boxes[rows, :, 2:], (middle + reach)[:, None])
        hidden = (high - low).clamp(min=0).prod(2)
        area = (boxes[rows, :, 2:] - boxes[rows, :, :2]).prod(2).clamp(min=1e-6)
        share = hidden / area
        kind = kinds[rows]
        kind = torch.where((kind == FACE) & (share > COVERED_DOUBT[what]), DOUBTFUL, kind)
        kinds = kinds.clone()
        kinds[rows] = torch.where(share > COVERED_GONE, NOTHING, kind)
        return kinds


def lay_over(scene, patch, mask, x, y):
    """Blends a patch into a scene around the point x, y."""
    left, top = x - PATCH // 2, y - PATCH // 2
    x0, y0 = max(left, 0), max(top, 0)
    x1, y1 = min(left + PATCH, SIDE), min(top + PATCH, SIDE)
    if x0 >= x1 or y0 >= y1:
        return
    part = (slice(y0 - top, y1 - top), slice(x0 - left, x1 - left))
    target = scene[:, y0:y1, x0:x1]
    target += mask[:, part[0], part[1]] * (patch[:, part[0], part[1]] - target)
