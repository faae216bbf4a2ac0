"""How good detections are: matching with the faces, then curves and figures by face size.

    each picture's boxes --match_picture--> which box is which face --joined--> Matches
      --counted(size class)--> hits by falling score --> average precision, precision, recall, F1

A box finds a face at an intersection over union of 0.5 or more. The best-scored box that does gets
the face, and a second one on it is a false alarm. Doubtful faces count neither way: not as missed,
and boxes on them not as false alarms. The same holds for faces outside the size class in question
and for false alarms of such a size. All boxes are x1 y1 x2 y2 in pixels of the network's 192x192
input, sizes are the square root of the area there.
"""

import collections

import numpy

LEAST_OVERLAP = 0.5
LARGEST = 1e9

# Name -> from, below: sizes in pixels.
SIZE_CLASSES = {
    "8-16": (8, 16), "16-32": (16, 32), "32-64": (32, 64), "64-192": (64, LARGEST),
    "8 and more": (8, LARGEST), "16 and more": (16, LARGEST),
}

Matches = collections.namedtuple("Matches", "scores sizes faces ignored face_sizes")
Matches.__doc__ = """The boxes of any number of pictures and the faces that they should find.

scores, sizes: of each box; faces: the index of its face or -1; ignored: whether it lies on a
doubtful face; face_sizes: of each face that isn't doubtful.
"""

Counted = collections.namedtuple("Counted", "scores hits face_count")
Counted.__doc__ = """The boxes that count for a size class, best first; how many faces it has."""

Point = collections.namedtuple("Point", "threshold precision recall f1")


def sizes_of(boxes):
    sides = numpy.maximum(boxes[:, 2:] - boxes[:, :2], 0)
    return numpy.sqrt(sides.prod(1))


def intersections(a, b):
    """Areas, n x m."""
    low = numpy.maximum(a[:, None, :2], b[None, :, :2])
    high = numpy.minimum(a[:, None, 2:], b[None, :, 2:])
    return numpy.maximum(high - low, 0).prod(2)


def overlaps(a, b):
    """Intersection over union, n x m; 0 for two empty boxes."""
    inter = intersections(a, b)
    union = sizes_of(a)[:, None] ** 2 + sizes_of(b)[None] ** 2 - inter
    return inter / numpy.maximum(union, 1e-9)


def on_doubtful(boxes, doubtful):
    """Which boxes find a doubtful face or lie on one with most of their area."""
    if len(doubtful) == 0:
        return numpy.zeros(len(boxes), bool)
    covered = intersections(boxes, doubtful) / numpy.maximum(sizes_of(boxes)[:, None] ** 2, 1e-9)
    return ((overlaps(boxes, doubtful) >= LEAST_OVERLAP) | (covered > 0.5)).any(1)


def match_picture(boxes, scores, faces, doubtful):
    """The Matches of one picture: boxes n x 4 with scores n, sure faces m x 4, doubtful k x 4."""
    found = numpy.full(len(boxes), -1)
    overlap = overlaps(boxes, faces)
    near = (overlap >= LEAST_OVERLAP).any(1).nonzero()[0]
    for box in near[numpy.argsort(-scores[near], kind="stable")]:
        face = int(overlap[box].argmax())
        if overlap[box, face] >= LEAST_OVERLAP:
            found[box] = face
            overlap[:, face] = 0  # taken
    ignored = (found < 0) & on_doubtful(boxes, doubtful)
    return Matches(scores, sizes_of(boxes), found, ignored, sizes_of(faces))


def first_boxes(matches, count):
    """The Matches of a picture whose boxes stand best first, with no more than `count` of them."""
    return Matches(*(column[:count] for column in matches[:4]), matches.face_sizes)


def joined(parts):
    """Matches of several pictures as one."""
    offsets = numpy.cumsum([0] + [len(part.face_sizes) for part in parts])
    faces = [numpy.where(part.faces >= 0, part.faces + offset, -1)
             for part, offset in zip(parts, offsets)]
    def column(name):
        return numpy.concatenate([getattr(part, name) for part in parts] or [numpy.empty(0)])
    return Matches(column("scores"), column("sizes"),
                   numpy.concatenate(faces or [numpy.empty(0, int)]),
                   column("ignored").astype(bool), column("face_sizes"))


def counted(matches, low, high):
    """What counts for faces of `low` to below `high` pixels."""
    wanted = (matches.face_sizes >= low) & (matches.face_sizes < high)
    hits = matches.faces >= 0
    hits[hits] = wanted[matches.faces[hits]]
    alarms = ((matches.faces < 0) & ~matches.ignored &
              (matches.sizes >= low) & (matches.sizes < high))
    order = numpy.argsort(-matches.scores, kind="stable")
    order = order[(hits | alarms)[order]]
    return Counted(matches.scores[order], hits[order], int(wanted.sum()))


def curve(count):
    """Precision and recall after each box, best first."""
    right = numpy.cumsum(count.hits)
    return (right / numpy.arange(1, len(right) + 1),
            right / max(count.face_count, 1))


def average_precision(count):
    """The area under the curve, each recall with the best precision from there on (all points).

    NaN where there are no faces.
    """
    if count.face_count == 0:
        return float("nan")
    precision, recall = curve(count)
    best = numpy.maximum.accumulate(precision[::-1])[::-1]
    return float((best * numpy.diff(recall, prepend=0)).sum())


def _point(threshold, right, boxes, face_count):
    precision = right / boxes if boxes else float("nan")
    recall = right / face_count if face_count else float("nan")
    f1 = 2 * right / (boxes + face_count) if boxes + face_count else float("nan")
    return Point(float(threshold), float(precision), float(recall), float(f1))


def point_at(count, threshold):
    """Precision, recall and F1 of the boxes that score above the threshold; NaN for 0 / 0."""
    above = count.scores > threshold
    return _point(threshold, int(count.hits[above].sum()), int(above.sum()), count.face_count)


def best_point(count):
    """The same where F1 is greatest; its threshold lies just below the last score that is in."""
    if len(count.scores) == 0:
        return _point(1, 0, 0, count.face_count)
    right = numpy.cumsum(count.hits)
    boxes = numpy.arange(1, len(right) + 1)
    f1 = 2 * right / (boxes + count.face_count)
    # Boxes of one score come in together or not at all.
    f1[:-1][count.scores[:-1] == count.scores[1:]] = 0
    last = int(f1.argmax())
    threshold = numpy.nextafter(count.scores[last], -numpy.inf, dtype=count.scores.dtype)
    return _point(threshold, int(right[last]), last + 1, count.face_count)
