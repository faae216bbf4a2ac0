"""The detector's own code, called from Python."""

import ctypes
import os
import unittest
from unittest import mock

import cv2
import numpy
import torch

import synthetic
from training import detector_library, larger, windows
from training.contract import SIDE, THRESHOLD
from training.detector_input import detector_input
from training.detector_library import Detector, Frame, Library
from training.network import FaceNetwork, to_images

# Smaller and larger than the network's input, of equal and of half width, odd, extreme; a step of
# eight and more takes a path of its own in the scaler.
SIZES = [(192, 192), (384, 384), (192, 100), (192, 333), (100, 192), (333, 192), (1280, 720),
         (1920, 1080), (640, 480), (400, 267), (267, 400), (97, 53), (53, 97), (383, 385), (1, 1),
         (2, 1), (1, 7), (3000, 40), (40, 3000), (2500, 1700), (192, 384), (384, 192)]


class Agreement(unittest.TestCase):
    """The module and the training code compute the same."""

    @classmethod
    def setUpClass(cls):
        cls.library = Library()
        cls.detector = Detector(cls.library)
        path = synthetic.new_folder() / "weights.bin"
        path.write_bytes(cls.library.weights())
        cls.network = FaceNetwork().eval()
        cls.network.load(path)

    def test_outputs_are_equal(self):
        """Both are float32 and sum in different orders, so they differ by roundings only.

        Sums have at most 144 terms in 30 layers one behind the other, a relative error of about
        sqrt(144 * 30) half units of 2^-24 where roundings are independent: 2e-6 of the largest
        value. Ten times that is allowed.
        """
        random = numpy.random.default_rng(8)
        portrait = self.library.prepare_input(self.library.convert(synthetic.portrait()))
        noise = random.integers(0, 256, (3, SIDE, SIDE, 3)).astype(numpy.uint8)
        plain = [numpy.full((SIDE, SIDE, 3), level, numpy.uint8) for level in (0, 128, 255)]
        for number, picture in enumerate([portrait, *noise, *plain]):
            with torch.no_grad():
                logits, boxes = (values[0].numpy() for values in self.network(
                    to_images(picture[None])))
            truth = 1 / (1 + numpy.exp(logits[:, ::-1] - logits))
            for found, expected, largest in zip(self.detector.run_network(picture), (truth, boxes),
                                                (max(1, numpy.abs(logits).max()),
                                                 numpy.abs(boxes).max())):
                self.assertLess(numpy.abs(found - expected).max(), 2e-5 * largest, number)

    def test_the_network_of_any_size_finds_the_same(self):
        """On the network's own size, from the same bytes, against the module's decoder."""
        picture = self.library.prepare_input(self.library.convert(synthetic.portrait()))
        frame = self.library.convert(picture)
        expected, scores = self.detector.detect(frame, 0.3, 50)
        found, own_scores = larger.detect(
            self.network, self.library.prepare_input(frame), SIDE, 0.3)
        self.assertEqual(found.shape, expected.shape)
        self.assertLess(numpy.abs(found - expected).max(), 0.01)
        self.assertLess(numpy.abs(own_scores - scores).max(), 1e-4)
        # A wider one sees the same face where it is, in its shape.
        wide = cv2.resize(synthetic.portrait(), (400, 300))
        boxes, _ = larger.detect(self.network, wide, 256, 0.5)
        self.assertGreater(synthetic.overlap(
            boxes[0], expected[0] * numpy.tile([400 / SIDE, 300 / SIDE], 2)), 0.7)

    def test_inputs_are_equal_byte_for_byte(self):
        """What training shows the network is what the detector shows it."""
        random = numpy.random.default_rng(6)
        for width, height in SIZES:
            half = (height + 1) // 2, (width + 1) // 2
            for extremes in (False, True):
                y, u, v = (random.integers(0, 256, shape).astype(numpy.uint8)
                           for shape in ((height, width), half, half))
                if extremes:
                    y, u, v = ((plane > 127) * numpy.uint8(255) for plane in (y, u, v))
                expected = self.library.prepare_input(Frame(y, u, v))
                found = detector_input(*(torch.from_numpy(plane)[None] for plane in (y, u, v)))
                self.assertTrue(numpy.array_equal(found[0].numpy(), expected), (width, height))

    def test_detection_prepares_and_runs_the_same_picture(self):
        frame = self.library.convert(synthetic.portrait())
        scores, _ = self.detector.run_network(self.library.prepare_input(frame))
        boxes, found = self.detector.detect(frame, 0.3, 50)
        self.assertEqual((boxes.shape, found[0]), ((len(found), 4), scores[:, 1].max()))
        self.assertTrue((found > numpy.float32(0.3)).all() and (numpy.diff(found) <= 0).all())


class Windows(unittest.TestCase):
    def setUp(self):
        self.library = Library()
        self.detector = Detector(self.library)

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


class Refusals(unittest.TestCase):
    def setUp(self):
        self.library = Library()

    def test_pictures_that_cannot_be(self):
        plane, fits, nothing = (numpy.zeros(shape, numpy.uint8)
                                for shape in ((5, 7), (3, 4), (0, 0)))
        Frame(plane, fits, fits)
        for refused in (lambda: Frame(plane, fits[:2], fits), lambda: Frame(plane, plane, plane),
                        lambda: Frame(plane, fits, fits[:, :3]),
                        lambda: self.library.prepare_input(Frame(nothing, nothing, nothing)),
                        lambda: self.library.plan_windows((0, 360), 6, 16),
                        lambda: self.library.plan_windows((640, 40000), 6, 16),
                        lambda: self.library.group_boxes((640, 360), [(0, 0, 640, 360)],
                                                         [(0, 0, 9, 9)], [1]),
                        lambda: self.library.convert(numpy.zeros((0, 5, 3), numpy.uint8)),
                        lambda: self.library.convert(numpy.zeros((1, 32769, 3), numpy.uint8)),
                        lambda: Detector(self.library).run_network(nothing)):
            with self.assertRaises(ValueError):
                refused()

    def test_calls_from_elsewhere(self):
        """The C functions themselves, without the checks on this side."""
        frame = Frame(*(numpy.zeros(shape, numpy.uint8) for shape in ((6, 8), (3, 4), (3, 4))))
        detector = Detector(self.library)
        handle = ctypes.c_void_p(detector.handle)
        picture = numpy.zeros((SIDE, SIDE, 3), numpy.uint8).ctypes.data_as(ctypes.c_void_p)
        boxes = numpy.zeros((9, 5), numpy.float32).ctypes.data_as(ctypes.c_void_p)
        call = self.library.functions
        threshold, null = ctypes.c_float(0), ctypes.c_void_p()
        def prepare(**changes):
            described = frame.described()
            for name, value in changes.items():
                setattr(described, name, value)
            return call.tavroPrepareInput(ctypes.byref(described), picture)
        self.assertEqual(prepare(), 0)
        for change in ({"width": 0}, {"height": -1}, {"width": 32769}, {"height": 32769},
                       {"y": None}, {"u": None}, {"v": None}):
            self.assertEqual(prepare(**change), -1, change)
        good = ctypes.byref(frame.described())
        for function, *arguments in ((call.tavroPrepareInput, good, picture),
                                     (call.tavroConvertPicture, picture, 24, good),
                                     (call.tavroRunNetwork, handle, picture, boxes, boxes),
                                     (call.tavroDetect, handle, good, threshold, 5, boxes, 9)):
            for place, argument in enumerate(arguments):
                if argument is not threshold:
                    bad = -1 if isinstance(argument, int) else null
                    self.assertEqual(function(*arguments[:place], bad, *arguments[place + 1:]), -1)
        self.assertEqual(call.tavroConvertPicture(picture, 23, good), -1)
        self.assertLessEqual(call.tavroDetect(handle, good, threshold, 8, boxes, 2), 2)
        call.tavroReleaseDetector(null)

    def test_libraries_that_are_none(self):
        for named in ("/nowhere/lib.so", __file__):
            with mock.patch.dict(os.environ, {"TAVRO_TRAINING_LIBRARY": named}):
                with self.assertRaisesRegex(detector_library.NotBuilt, named):
                    Library()
        with mock.patch.dict(os.environ):
            os.environ.pop("TAVRO_TRAINING_LIBRARY", None)
            with mock.patch.object(detector_library, "ROOT", synthetic.new_folder()):
                with self.assertRaisesRegex(detector_library.NotBuilt, "--target tavro_training"):
                    Library()
