"""Faces that only a window of the frame shows large enough."""

import unittest

import cv2
import numpy

import synthetic
from training import windows
from training.contract import THRESHOLD
from training.detector_library import Detector, Library


class Windows(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.library = Library()
        cls.detector = Detector(cls.library)

    def test_a_small_face_is_found_once(self):
        portrait = synthetic.portrait()
        face = self.detector.detect(self.library.convert(portrait))[0][0]
        small = cv2.resize(portrait, None, fx=0.3, fy=0.3, interpolation=cv2.INTER_AREA)
        # In one window, and where two of them overlap.
        for x, y in ((40, 24), (300, 60), (302, 200)):
            picture = numpy.full((360, 640, 3), small.mean((0, 1)), numpy.uint8)
            picture[y:y + small.shape[0], x:x + small.shape[1]] = small
            frame = self.library.convert(picture)
            for most, expected in ((1, 0), (16, 1)):
                found = windows.WindowSearch(self.detector, self.detector, most).detect(frame)
                reported = found.boxes[found.scores > THRESHOLD]
                self.assertEqual((len(reported), found.windows),
                                 (expected, 1 if most == 1 else 11), (x, y))
                self.assertTrue((numpy.diff(found.scores) <= 0).all())
            self.assertGreater(synthetic.overlap(reported[0], face * 0.3 + (x, y, x, y)), 0.5)

    def test_square_windows_have_a_detector_of_their_own(self):
        search = windows.WindowSearch("whole", "square", 16)
        plan = self.library.plan_windows((640, 360), 6, 16)
        self.assertEqual([search.detector_for(index, window) for index, window in enumerate(plan)],
                         ["whole"] + ["square"] * 10)

    def test_what_no_host_would_ask_for_is_refused(self):
        for size, most in (((0, 360), 16), ((640, 40000), 16)):
            with self.assertRaisesRegex(ValueError, "refused"):
                self.library.plan_windows(size, 6, most)
        with self.assertRaisesRegex(ValueError, "refused"):
            self.library.group_boxes((640, 360), [(0, 0, 640, 360)], [(0, 0, 9, 9)], [1])
