"""Finds the faces of a picture through several windows, as a host does.

    frame --plan--> windows --detect--> boxes of each window --group--> faces --> boxes and scores

Plan and grouping are the host's own (host/core/window_plan.h, face_merging.h), and so is each
window's detection. What is found at the detector's threshold is what a host finds: of at most six
boxes a window, the best seen one of each face, here with the highest score of that face. For the
curves, boxes that are in no such group follow, best first, with scores up to the threshold.
"""

import collections
import time

import numpy

from training.contract import MOST_REPORTED, THRESHOLD
from training.detector_library import Frame

LOWEST_SCORE = 0.05
MOST_BOXES = 50  # of a window
SMALLEST_FACE = 6  # pixels: as many layers as the windows allow
NEARLY_SQUARE = 1.25

Found = collections.namedtuple("Found", "boxes scores windows seconds")
Found.__doc__ = """boxes n x 4 in pixels of the frame and scores n, best first; how many windows were
looked through and how long their detections took in all."""

Seen = collections.namedtuple("Seen", "boxes scores window_of reported")
Seen.__doc__ = """What all windows see: boxes in pixels of the frame, the index of the window of each,
and whether a host gets it from there."""


def part_of(frame, window):
    """The part of a frame that a window shows; windows begin at even coordinates."""
    x, y, width, height = (int(value) for value in window)
    chroma = (slice(y // 2, (y + height + 1) // 2), slice(x // 2, (x + width + 1) // 2))
    return Frame(frame.y[y:y + height, x:x + width], frame.u[chroma], frame.v[chroma])


class WindowSearch:
    """Looks through at most so many windows, with another detector for nearly square ones."""

    def __init__(self, detector, square_detector, most_windows):
        self.detector, self.square_detector = detector, square_detector
        self.most_windows = most_windows

    def detector_for(self, index, window):
        is_square = max(window[2:]) <= NEARLY_SQUARE * min(window[2:])
        return self.square_detector if index > 0 and is_square else self.detector

    def detect(self, frame):
        library = self.detector.library
        plan = library.plan_windows(frame.size, SMALLEST_FACE, self.most_windows)
        boxes, scores, window_of, reported, seconds = [], [], [], [], 0.0
        for index, window in enumerate(plan):
            part = part_of(frame, window)
            detector = self.detector_for(index, window)
            start = time.perf_counter()
            found = detector.detect(part, LOWEST_SCORE, MOST_BOXES)
            seconds += time.perf_counter() - start
            boxes.append(found[0] + numpy.tile(window[:2], 2))
            scores.append(found[1])
            window_of.append(numpy.full(len(found[1]), index, numpy.int32))
            reported.append((found[1] > THRESHOLD) & (numpy.arange(len(found[1])) < MOST_REPORTED))
        seen = Seen(numpy.concatenate(boxes).astype(numpy.float32), numpy.concatenate(scores),
                    numpy.concatenate(window_of), numpy.concatenate(reported))
        boxes, scores = self.faces(frame.size, plan, seen)
        return Found(boxes, scores, len(plan), seconds)

    def faces(self, size, plan, seen):
        group = self.detector.library.group_boxes
        reported = Seen(*(column[seen.reported] for column in seen))
        best = group(size, plan, reported.boxes, reported.window_of)
        found = numpy.unique(best)
        highest = numpy.zeros(len(best), numpy.float32)
        numpy.maximum.at(highest, best, reported.scores)
        # Of what no window reports, whatever belongs to none of these faces.
        best = group(size, plan, seen.boxes, seen.window_of)
        spare = numpy.flatnonzero(~numpy.isin(best, best[seen.reported]))
        spare = spare[numpy.argsort(-seen.scores[spare], kind="stable")]
        spare = spare[numpy.unique(best[spare], return_index=True)[1]]
        boxes = numpy.concatenate([reported.boxes[found], seen.boxes[spare]])
        scores = numpy.concatenate([highest[found], numpy.minimum(seen.scores[spare], THRESHOLD)])
        order = numpy.argsort(-scores, kind="stable")
        return boxes[order], scores[order]
