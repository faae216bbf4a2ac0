"""Moving scenes must know where their faces are, and gaps and false boxes must be counted right."""

import pathlib
import tempfile
import unittest

import numpy

import synthetic
from training import clips, faces


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
