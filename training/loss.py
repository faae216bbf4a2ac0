"""What training makes small: a loss of the scores and a loss of the boxes.

Scores: focal loss (Lin and others, 2017), or cross-entropy over the hardest negatives (Liu and
others, 2016). Boxes: the complete intersection over union (Zheng and others, 2020), or smooth L1 of
the offsets. Large faces have many priors and small ones two or three; `balance` says how far each
of a large face's priors counts less. README.md tells what is taken and why.
"""

import math

import torch
from torch.nn import functional

from training.assignment import BEST_PRIORS, assign
from training.priors import decode, encode

FOCUS, POSITIVE_WEIGHT = 2.0, 0.5
BOX_WEIGHT = 2.0  # of the box loss beside that of the scores
NEGATIVES_PER_POSITIVE, FEWEST_NEGATIVES = 4, 20


def focal(logit, positive, negative, share):
    """Sum over all priors that are asked. `logit` is that of "face" against "no face"; all
    arguments are n x 2088. `share` is what a positive counts.
    """
    target = positive.float()
    entropy = functional.binary_cross_entropy_with_logits(logit, target, reduction="none")
    wrong = 1 - torch.exp(-entropy)  # the probability of the wrong answer
    weight = torch.where(positive, POSITIVE_WEIGHT, 1 - POSITIVE_WEIGHT)
    return (4 * weight * wrong ** FOCUS * entropy * share)[positive | negative].sum()


def hardest(logit, positive, negative, share):
    """Sum over positives and, in each picture, the negatives that are most like faces."""
    entropy = functional.binary_cross_entropy_with_logits(logit, positive.float(),
                                                          reduction="none")
    count = (positive.sum(1) * NEGATIVES_PER_POSITIVE).clamp(min=FEWEST_NEGATIVES)
    candidates = entropy.detach().masked_fill(~negative, -1)
    rank = candidates.argsort(1, descending=True).argsort(1)
    return (entropy * share)[positive | negative & (rank < count[:, None])].sum()


def shares(positive, index, faces, balance):
    """What each positive counts: less where its face has more than the usual number of them."""
    picture = torch.arange(len(index), device=index.device)[:, None]
    face = picture * faces + index
    priors = torch.bincount(face[positive], minlength=len(index) * faces)[face]
    share = (BEST_PRIORS / priors.clamp(min=BEST_PRIORS)) ** balance
    return torch.where(positive, share, torch.ones_like(share))


def complete_overlap(found, truth):
    """1 - CIoU of boxes n x 4."""
    low, high = torch.maximum(found[:, :2], truth[:, :2]), torch.minimum(found[:, 2:], truth[:, 2:])
    inter = (high - low).clamp(min=0).prod(1)
    size_found, size_truth = found[:, 2:] - found[:, :2], truth[:, 2:] - truth[:, :2]
    overlap = inter / (size_found.prod(1) + size_truth.prod(1) - inter)
    hull = torch.maximum(found[:, 2:], truth[:, 2:]) - torch.minimum(found[:, :2], truth[:, :2])
    apart = (found[:, :2] + found[:, 2:] - truth[:, :2] - truth[:, 2:]) / 2
    shape = 4 / math.pi ** 2 * (torch.atan(size_found[:, 0] / size_found[:, 1]) -
                                torch.atan(size_truth[:, 0] / size_truth[:, 1])) ** 2
    with torch.no_grad():
        weight = shape / (1 - overlap + shape + 1e-6)
    return 1 - overlap + (apart ** 2).sum(1) / (hull ** 2).sum(1) + weight * shape


def unsteadiness(first, second, shift, positive, priors):
    """How differently two views of the same scenes are answered, the second one moved by `shift`.

    Logits and offsets of both; priors that have a face count: their scores' squared difference and
    the movement of their boxes that the shift doesn't explain, relative to the prior's size.
    """
    picture, prior = positive.nonzero(as_tuple=True)
    if len(picture) == 0:
        return first[0].sum() * 0
    (score, box), (moved_score, moved_box) = (
        ((logits[..., 1] - logits[..., 0])[picture, prior].sigmoid(),
         decode(offsets[picture, prior].clamp(-20, 20), priors[prior]))
        for logits, offsets in (first, second))
    way = torch.tensor([*shift, *shift], dtype=box.dtype, device=box.device)
    apart = (box + way - moved_box).abs().mean(1) / priors[prior, 2]
    return ((score - moved_score) ** 2 + apart).mean()


class Loss:
    """Both losses of a batch, each divided by what its positives count."""

    score_losses = {"focal": focal, "hardest": hardest}
    box_losses = ("complete", "smooth")

    def __init__(self, priors, score_loss, box_loss, balance):
        self.priors = priors
        self.score_loss = self.score_losses[score_loss]
        self.box_loss = box_loss
        self.balance = balance

    def __call__(self, logits, offsets, boxes, kinds):
        """Outputs of the network; boxes and kinds as `assign` takes them. Returns (score, box)."""
        with torch.no_grad():
            positive, negative, index = assign(boxes, kinds, self.priors)
            share = shares(positive, index, boxes.shape[1], self.balance)
        score = self.score_loss(logits[..., 1] - logits[..., 0], positive, negative, share)
        count = share[positive].sum().clamp(min=1)
        picture, prior = positive.nonzero(as_tuple=True)
        truth = boxes[picture, index[picture, prior]]
        found, priors = offsets[picture, prior], self.priors[prior]
        if self.box_loss == "complete":
            # The exponential of a wild guess must not overflow.
            box = complete_overlap(decode(found.clamp(-20, 20), priors), truth)
        else:
            box = functional.smooth_l1_loss(found, encode(truth, priors), reduction="none").sum(1)
        return score / count, BOX_WEIGHT * (box * share[positive]).sum() / count

    def steadiness(self, first, second, shift, boxes, kinds):
        """Outputs for two views of the same scenes, boxes and kinds of the first."""
        with torch.no_grad():
            positive, _, _ = assign(boxes, kinds, self.priors)
        return unsteadiness(first, second, shift, positive, self.priors)
