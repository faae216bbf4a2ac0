"""Which priors shall say "face", which "no face", and which aren't asked.

A prior learns a face if it overlaps it by `POSITIVE_OVERLAP` or is among the face's best ones, so
that small faces between the grid's priors are learned too. In between, and over doubtful faces,
there is no right answer.
"""

import torch

from training.priors import corners, overlaps

NOTHING, FACE, DOUBTFUL = 0, 1, 2  # kinds of boxes; those of no kind come last

POSITIVE_OVERLAP = 0.4
NEGATIVE_OVERLAP = 0.25
BEST_PRIORS = 3
BEST_PRIORS_OVERLAP = 0.2
SMALLEST_DOUBT = 8.0  # a doubtful face clears at least as much, in input pixels


def widened(boxes, side):
    """Boxes grown to `side` by `side` around their centres where they are smaller."""
    centre = (boxes[..., :2] + boxes[..., 2:]) / 2
    return corners(torch.cat([centre, (boxes[..., 2:] - boxes[..., :2]).clamp(min=side)], -1))


def assign(boxes, kinds, priors):
    """Boxes n x m x 4 in corners and their kinds n x m, priors 2088 x 4.

    Returns for each prior, n x 2088: whether it is a positive, whether it is a negative, and the
    index of its face among the m.
    """
    at = corners(priors)
    in_use = (kinds != NOTHING).any(0).nonzero()
    used = int(in_use[-1]) + 1 if len(in_use) else 1
    boxes, kinds = boxes[:, :used], kinds[:, :used]
    inter, prior_area, area = overlaps(at, boxes)
    overlap = inter.div_(prior_area[:, None] + area[:, None, :] - inter)
    overlap.mul_((kinds == FACE)[:, None, :])
    best, index = overlap.max(2)

    # The best priors of a face belong to it even if another face overlaps them more. Faces take
    # theirs in order of rank, the best of all last, so that none of them is taken away.
    top, which = overlap.topk(BEST_PRIORS, 1)
    forced = torch.zeros_like(best, dtype=torch.bool)
    for rank in reversed(range(BEST_PRIORS)):
        enough = top[:, rank] > (0 if rank == 0 else BEST_PRIORS_OVERLAP)
        picture, face = enough.nonzero(as_tuple=True)
        prior = which[:, rank][picture, face]
        index[picture, prior] = face
        forced[picture, prior] = True
    positive = forced | (best >= POSITIVE_OVERLAP)

    inter, prior_area, area = overlaps(at, widened(boxes, SMALLEST_DOUBT))
    inter.mul_((kinds == DOUBTFUL)[:, None, :])
    doubt = inter.amax(2) > 0.5 * prior_area
    doubt |= (inter.div_(prior_area[:, None] + area[:, None, :] - inter)).amax(2) > NEGATIVE_OVERLAP
    negative = ~positive & ~doubt & (best < NEGATIVE_OVERLAP)
    return positive, negative, index
