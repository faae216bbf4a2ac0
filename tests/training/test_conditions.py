"""Pictures as other cameras deliver them must keep their boxes where the faces are."""

import unittest

import numpy

import synthetic
from training import conditions
from training.faces import Picture


def scenes(count):
    for number, (image, boxes, doubtful) in enumerate(synthetic.squares(9, count)):
        yield conditions.from_picture(Picture(
            str(number), None, numpy.float32(boxes).reshape(-1, 4), numpy.array(doubtful, bool),
            numpy.zeros(len(boxes), int)), image)


class Aspects(unittest.TestCase):
    def test_the_window_is_the_largest_and_the_box_follows(self):
        for scene in scenes(30):
            for name, aspect in conditions.ASPECTS.items():
                cut = conditions.cropped(scene, aspect)
                height, width = cut.image.shape[:2]
                self.assertLess(abs(width - aspect * height), 1 + aspect, name)
                self.assertTrue(width == scene.image.shape[1] or height == scene.image.shape[0])
                self.assertEqual(len(cut.boxes), len(scene.boxes))  # the only face is kept
                if len(cut.boxes):
                    self.assertEqual(synthetic.bright_part(cut.image), cut.boxes[0].tolist(), name)
                    whole = numpy.prod(scene.boxes[0, 2:] - scene.boxes[0, :2])
                    left = numpy.prod(cut.boxes[0, 2:] - cut.boxes[0, :2]) / whole
                    self.assertEqual(bool(cut.doubtful[0]), left < conditions.CUT)

    def test_as_many_faces_as_any_window_holds(self):
        random = numpy.random.default_rng(4)
        for _ in range(50):
            centres = random.uniform(0, 300, random.integers(0, 9))
            start = conditions.window_start(centres, 300, 120)
            self.assertTrue(0 <= start <= 180)
            def held(at):
                return int(((centres >= at) & (centres <= at + 120)).sum())
            self.assertEqual(held(start), max(held(at) for at in numpy.linspace(0, 180, 1801)))


class Faults(unittest.TestCase):
    def test_are_repeatable_and_different_from_picture_to_picture(self):
        image = synthetic.portrait()
        functions = {**conditions.SPOILED,
                     **{name: change for name, (change, _) in conditions.NUDGED.items()}}
        for name, function in functions.items():
            first, again, other = (function(image, conditions.random(index)) for index in (1, 1, 2))
            self.assertTrue((first == again).all(), name)
            self.assertEqual((first.shape, first.dtype), (image.shape, image.dtype))
            self.assertTrue((first != image).any(), name)
            self.assertEqual((first != other).any(), name in ("dark", "noise", "noise of 2 levels"))
