"""How much the detector's answers move when the picture hardly changes.

Compared are the faces that were found in a picture and in its nudged copy: `Sightings` of the same
faces, one row a face.
"""

import collections

import numpy

Sightings = collections.namedtuple("Sightings", "scores boxes sizes")
Sightings.__doc__ = """For each labelled face the score (0: not found) and the box that found it.

boxes m x 4, x1 y1 x2 y2 in input pixels; sizes m, of the labelled faces.
"""

Steadiness = collections.namedtuple(
    "Steadiness", "faces mean_movement p99_movement mean_score_change p99_score_change flips")
Steadiness.__doc__ = """Movement: the largest of a box's four edges, relative to the face's size,
over faces above the threshold in both pictures; score changes over the same faces; flips: the share
that is above the threshold in one picture only, of those that are in any."""


def sightings(matches, boxes):
    """From a picture's Matches and its boxes."""
    count = len(matches.face_sizes)
    scores, where = numpy.zeros(count, numpy.float32), numpy.zeros((count, 4), numpy.float32)
    found = matches.faces >= 0
    scores[matches.faces[found]] = matches.scores[found]
    where[matches.faces[found]] = boxes[found]
    return Sightings(scores, where, matches.face_sizes)


def compare(before, after, threshold, smallest):
    """Steadiness of faces of at least `smallest` pixels; NaN where no face is left to measure."""
    counts = before.sizes >= smallest
    was, now = (part.scores[counts] > threshold for part in (before, after))
    both = was & now
    change = numpy.abs(after.scores - before.scores)[counts][both]
    moved = numpy.abs(after.boxes - before.boxes).max(1, initial=0)[counts][both]
    moved = moved / before.sizes[counts][both]
    if not both.any():
        moved = change = numpy.array([numpy.nan])
    either = int((was | now).sum())
    return Steadiness(int(both.sum()), float(moved.mean()), float(numpy.percentile(moved, 99)),
                      float(change.mean()), float(numpy.percentile(change, 99)),
                      float((was != now).sum() / either) if either else float("nan"))
