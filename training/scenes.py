"""Pictures turned into scenes: what stands before the camera, with its boxes.

    store --views--> square tiles --mosaic--> scenes --pastes--> scenes with small faces, masks and
    things in front
"""

import torch
from torch.nn import functional

from training.assignment import DOUBTFUL, FACE
from training.contract import SIDE
from training.pastes import Pastes
from training.views import choose_levels, choose_views, render, visible_boxes

# Share of the scenes, tiles along a side, range of the wanted face sizes in input pixels.
LAYOUTS = [(0.72, 1, (7, 190)), (0.17, 2, (7, 64)), (0.11, 3, (7, 36))]
MOST_BOXES = 40  # of one scene


def mosaic(store, random, count, tiles_along, face_sizes, natural=0.5):
    """`count` scenes of tiles_along x tiles_along views each, with boxes and kinds."""
    side = SIDE // tiles_along
    views = choose_views(store, random, count * tiles_along ** 2, side, face_sizes,
                        natural)
    tiles = render(store, views, side, choose_levels(views.scales, random))
    boxes, kinds = visible_boxes(views.project(store.boxes[views.pictures], side),
                                store.kinds[views.pictures], side)
    grid = torch.arange(tiles_along ** 2, device=random.device).repeat(count)
    corner = torch.stack([grid % tiles_along, grid // tiles_along], 1) * side
    boxes = boxes + corner.repeat(1, 2)[:, None]
    scenes = (tiles.view(count, tiles_along, tiles_along, 3, side, side)
              .permute(0, 3, 1, 4, 2, 5).reshape(count, 3, SIDE, SIDE))
    return scenes, boxes.reshape(count, -1, 4), kinds.reshape(count, -1)


def keep_largest(boxes, kinds):
    """MOST_BOXES boxes a scene, those of no kind last: faces first, larger ones first."""
    area = (boxes[..., 2:] - boxes[..., :2]).clamp(min=0).prod(2)
    rank = torch.where(kinds == FACE, area + 1e6, torch.where(kinds == DOUBTFUL, area + 1, -1.0))
    order = rank.topk(min(MOST_BOXES, rank.shape[1]), 1)[1]
    boxes = boxes.gather(1, order[..., None].expand(-1, -1, 4))
    kinds = kinds.gather(1, order)
    missing = MOST_BOXES - boxes.shape[1]
    return functional.pad(boxes, (0, 0, 0, missing)), functional.pad(kinds, (0, missing))


class Scenes:
    """Makes batches of scenes from a store, with or without pastes; `natural`: see choose_views."""

    def __init__(self, store, with_pastes=True, natural=0.5):
        self.store = store
        self.natural = natural
        self.pastes = Pastes(store) if with_pastes else None

    def batch(self, random, count):
        """Scenes count x 3 x 192 x 192, planes R, G, B from 0 to 255; boxes and kinds."""
        counts = [round(share * count) for share, _, _ in LAYOUTS[1:]]
        counts = [count - sum(counts)] + counts
        parts = []
        for layout_count, (_, tiles_along, face_sizes) in zip(counts, LAYOUTS):
            if layout_count > 0:
                scenes, boxes, kinds = mosaic(self.store, random, layout_count, tiles_along,
                                              face_sizes, self.natural)
                parts.append((scenes, *keep_largest(boxes, kinds)))
        scenes, boxes, kinds = (torch.cat(part) for part in zip(*parts))
        if self.pastes:
            boxes, kinds = self.pastes.add_to(random, scenes, boxes, kinds)
        return scenes, *keep_largest(boxes, kinds)
