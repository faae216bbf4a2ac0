"""The figures against the slow way to get them, and against cases worked out by hand."""

import math
import unittest

import numpy

from synthetic import area, overlap, shared
from training import leaks, metrics, steadiness

EVERYTHING = (0, metrics.LARGEST)


def slow_average_precision(pictures, low, high):
    """By the definition: all boxes of all pictures from the best on, one at a time."""
    entries = sorted(((score, number, box) for number, (boxes, scores, _, _) in enumerate(pictures)
                      for box, score in zip(boxes.tolist(), scores.tolist())), reverse=True)
    wanted = [(number, tuple(face)) for number, (_, _, faces, _) in enumerate(pictures)
              for face in faces.tolist() if low <= math.sqrt(area(face)) < high]
    taken, right, points, counting = set(), 0, [], 0
    for _, number, box in entries:
        _, _, faces, doubtful = pictures[number]
        free = [tuple(face) for face in faces.tolist() if (number, tuple(face)) not in taken]
        best = max(free, key=lambda face: overlap(box, face), default=None)
        if best is not None and overlap(box, best) >= 0.5:
            taken.add((number, best))
            if (number, best) not in wanted:
                continue
            right += 1
        elif any(overlap(box, other) >= 0.5 or shared(box, other) > area(box) / 2
                 for other in doubtful.tolist()) or not low <= math.sqrt(area(box)) < high:
            continue
        counting += 1
        points.append((right / len(wanted), right / counting))
    total, before = 0, 0
    for recall, _ in points:
        total += (recall - before) * max(p for r, p in points if r >= recall)
        before = recall
    return total


def random_pictures(random, count):
    """Boxes near faces, near doubtful ones and anywhere, all scores different."""
    pictures = []
    for _ in range(count):
        def some(number):
            corner, side = random.uniform(0, 150, (number, 2)), random.uniform(6, 90, (number, 2))
            return numpy.concatenate([corner, corner + side], 1)
        faces, doubtful = some(random.integers(0, 4)), some(random.integers(0, 3))
        near = numpy.concatenate([faces, faces, doubtful]) if len(faces) else doubtful
        near = near + random.normal(0, 4, near.shape)
        boxes = numpy.concatenate([near, some(3)])
        boxes[:, 2:] = numpy.maximum(boxes[:, 2:], boxes[:, :2] + 2)
        pictures.append((boxes, random.uniform(0, 1, len(boxes)), faces, doubtful))
    return pictures


class AveragePrecision(unittest.TestCase):
    def test_against_the_definition(self):
        random = numpy.random.default_rng(7)
        for trial in range(20):
            pictures = random_pictures(random, 12)
            matches = metrics.joined([metrics.match_picture(*picture) for picture in pictures])
            for name, sizes in {**metrics.SIZE_CLASSES, "all": EVERYTHING}.items():
                count = metrics.counted(matches, *sizes)
                if count.face_count:
                    self.assertAlmostEqual(metrics.average_precision(count),
                                           slow_average_precision(pictures, *sizes), places=9,
                                           msg=f"trial {trial}, {name}")

    def test_worked_out_by_hand(self):
        # Right, wrong, right of three faces: 1/3 at precision 1, then 1/3 at 2/3.
        count = metrics.Counted(numpy.array([.9, .8, .7]), numpy.array([True, False, True]), 3)
        self.assertAlmostEqual(metrics.average_precision(count), 1 / 3 + 2 / 9)
        self.assertTrue(math.isnan(metrics.average_precision(count._replace(face_count=0))))
        nothing = metrics.Counted(numpy.empty(0), numpy.empty(0, bool), 3)
        self.assertEqual(metrics.average_precision(nothing), 0)

    def test_nothing_at_all(self):
        none = numpy.empty((0, 4))
        matches = metrics.joined([metrics.match_picture(none, numpy.empty(0), none, none)])
        count = metrics.counted(matches, *EVERYTHING)
        self.assertEqual(count.face_count, 0)
        self.assertTrue(math.isnan(metrics.point_at(count, 0.65).precision))
        self.assertTrue(math.isnan(metrics.best_point(count).f1))
        self.assertEqual(metrics.counted(metrics.joined([]), *EVERYTHING).face_count, 0)


class Matching(unittest.TestCase):
    def test_limits(self):
        def found(box, faces, doubtful=()):
            arrays = (numpy.array(value, float).reshape(-1, 4) for value in (faces, doubtful))
            match = metrics.match_picture(numpy.array([box], float), numpy.ones(1), *arrays)
            return match.faces.tolist(), match.ignored.tolist()
        face = [10, 10, 30, 30]
        for box, faces, doubtful, expected in (
                ([10, 10, 30, 20], [face], [], ([0], [False])),  # half of the union is enough
                ([10, 10, 30, 19.9], [face], [], ([-1], [False])),
                (face, [face], [[0, 0, 99, 99]], ([0], [False])),  # a sure face goes first
                ([96, 40, 104, 50], [], [[0, 0, 100, 100]], ([-1], [False])),
                ([95, 40, 103, 50], [], [[0, 0, 100, 100]], ([-1], [True]))):  # mostly on it
            self.assertEqual(found(box, faces, doubtful), expected, box)


class OperatingPoints(unittest.TestCase):
    def setUp(self):
        random = numpy.random.default_rng(3)
        scores = numpy.sort(numpy.round(random.uniform(0, 1, 200), 2).astype(numpy.float32))[::-1]
        self.count = metrics.Counted(scores, random.uniform(0, 1, 200) < scores, 150)

    def slow(self, threshold):
        above = [bool(hit) for score, hit in zip(self.count.scores, self.count.hits)
                 if score > numpy.float32(threshold)]
        precision, recall = sum(above) / len(above), sum(above) / 150
        return precision, recall, 2 * precision * recall / (precision + recall)

    def test_at_a_threshold(self):
        for threshold in (0.1, 0.65, float(self.count.scores[50])):
            for a, b in zip(metrics.point_at(self.count, threshold)[1:], self.slow(threshold)):
                self.assertAlmostEqual(a, b)

    def test_the_best_is_reached_at_its_threshold(self):
        best = metrics.best_point(self.count)
        candidates = [value - 1e-4 for value in set(self.count.scores.tolist())]
        self.assertAlmostEqual(best.f1, max(self.slow(value)[2] for value in candidates))
        self.assertAlmostEqual(metrics.point_at(self.count, best.threshold).f1, best.f1)


class Steady(unittest.TestCase):
    def test_movement_scores_and_flips(self):
        def sightings(scores, shift):
            boxes = numpy.array([[10, 10, 30, 30], [50, 50, 90, 90], [0, 0, 20, 20],
                                 [5, 5, 10, 10], [60, 0, 80, 20]], numpy.float32)
            boxes[:, 2] += numpy.float32(shift)
            return steadiness.Sightings(numpy.array(scores, numpy.float32), boxes,
                                        numpy.array([20, 40, 20, 5, 20]))
        # Two faces above the threshold in both, one in one of them, one too small, one never.
        result = steadiness.compare(sightings([.9, .8, .7, .9, .2], 0),
                                    sightings([.9, .7, .6, .1, .3], 2), 0.65, 16)
        self.assertEqual(result.faces, 2)
        self.assertAlmostEqual(result.mean_movement, (2 / 20 + 2 / 40) / 2, places=6)
        self.assertAlmostEqual(result.mean_score_change, 0.05, places=6)
        self.assertAlmostEqual(result.p99_score_change, 0.099, places=6)
        self.assertAlmostEqual(result.flips, 1 / 3)

    def test_sightings_are_of_the_matched_boxes(self):
        boxes = numpy.array([[0.0, 0, 9, 9], [40, 40, 60, 60], [10, 10, 30, 31]])
        faces = numpy.array([[10.0, 10, 30, 30], [40, 40, 60, 60], [70, 70, 90, 90]])
        matches = metrics.match_picture(boxes, numpy.array([.9, .8, .7]), faces, faces[:0])
        seen = steadiness.sightings(matches, boxes)
        self.assertTrue(numpy.allclose(seen.scores, [.7, .8, 0]))
        self.assertEqual(seen.boxes[0].tolist(), [10, 10, 30, 31])


class Leaks(unittest.TestCase):
    def test_a_face_leaks_if_a_tenth_of_what_is_in_view_shows(self):
        image = numpy.full((200, 200, 3), 90, numpy.uint8)
        image[60:140, 70:130] = 250  # the face's box
        person = leaks.Person(image, numpy.float32([70, 60, 60, 80]), 80.0, 1, 0.0)
        plain = numpy.full((20, leaks.HEIGHT, leaks.WIDTH, 3), 180, numpy.uint8)
        video = leaks.Video(numpy.random.default_rng(1), [person], plain)
        seen = sum(map(len, video.truths))
        self.assertTrue(10 <= seen <= 19, seen)  # it comes in and leaves
        for part, leaking in ((0.0, 100), (0.85, 100), (0.95, 0), (1.0, 0)):
            count = leaks.Count()
            for truths, frame in zip(video.truths, video.frames):
                hidden = numpy.zeros((leaks.HEIGHT, leaks.WIDTH), bool)
                for truth in truths:
                    (x, y), (rows, columns) = truth.place, truth.mask.shape
                    # What is in view of the face is where it was painted.
                    self.assertGreater(frame[y:y + rows, x:x + columns][truth.mask].mean(), 240)
                    order = numpy.argwhere(truth.mask) + [y, x]
                    chosen = order[:round(part * len(order))]
                    hidden[chosen[:, 0], chosen[:, 1]] = True
                count.add(truths, frame, hidden)
            self.assertEqual(count.all.sum(), seen)
            self.assertEqual(float(count.row()[0]), leaking, part)
