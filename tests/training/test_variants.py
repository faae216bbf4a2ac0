"""What the evaluation makes of pictures: moving scenes must know where their faces are, and what other
cameras deliver must keep its boxes on them."""

import pathlib
import tempfile
import unittest

import numpy

import synthetic
from training import clips, conditions, faces
from training.faces import Picture


class Clips(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.pictures = faces.load(synthetic.write(
            pathlib.Path(tempfile.mkdtemp()) / "set", synthetic.squares(7, 12)))

    def test_boxes_stay_on_their_squares(self):
        kinds = []
        for kind, clip in clips.make(self.pictures):
            kinds.append(kind)
            for frame, boxes in list(zip(clip.frames, clip.boxes))[::7]:
                self.assertEqual(frame.shape, (clips.HEIGHT, clips.WIDTH, 3))
                for x1, y1, x2, y2 in boxes:
                    self.assertTrue(0 < x1 < x2 < clips.WIDTH and 0 < y1 < y2 < clips.HEIGHT)
                    x, y, w, h = (x1 + x2) / 2, (y1 + y2) / 2, x2 - x1, y2 - y1
                    def level(across, down):
                        return frame[int(y + down * h), int(x + across * w)].mean()
                    around = max(level(*at) for at in ((-.8, 0), (.8, 0), (0, -.8), (0, .8)))
                    self.assertGreater(level(0, 0), 2 * around, kind)
        self.assertEqual({kind: kinds.count(kind) for kind in kinds}, {
            "pan": 8, "turn": 8, "darken": 8, "two people": 8, "no face": 1})

    def test_what_is_counted(self):
        truth = numpy.float32([[[10, 10, 50, 60], [200, 10, 240, 60]]] * 60)
        clip = clips.Clip(list(range(60)), truth)
        false = numpy.float32([[400, 100, 440, 150], [402, 100, 442, 150], [10, 300, 50, 350]])
        def detect(frame):
            """The second face comes late and misses frames 30 to 34; false boxes in three."""
            boxes = [truth[0, 0]] + [truth[0, 1]] * (frame >= 6 and not 30 <= frame < 35)
            boxes += list(false[frame - 40:][:1]) if 40 <= frame < 43 else []
            return numpy.stack(boxes), numpy.full(len(boxes), 0.9, numpy.float32)
        row = clips.continuity([clips.follow(clip, detect)])
        self.assertEqual((row.faces, row.longest_gap), (2, 6))
        self.assertAlmostEqual(row.recall, 1 - 11 / 120)
        self.assertAlmostEqual(row.flicker, 15)  # once in two faces' two seconds
        self.assertAlmostEqual(row.false_tracks, 60)  # two in two seconds
        nothing = clips.continuity([clips.follow(
            clip, lambda _: (truth[0, :0], numpy.empty(0, numpy.float32)))])
        self.assertEqual((nothing.recall, nothing.longest_gap, nothing.flicker), (0, 60, 0))


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
