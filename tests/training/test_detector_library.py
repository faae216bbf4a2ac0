"""The detector's own code, called from Python."""

import ctypes
import os
import pathlib
import tempfile
import unittest
from unittest import mock

import numpy
import torch

import synthetic
from training import detector_library
from training.detector_library import SIDE, Detector, Frame, Library
from training.network import FaceNetwork, toImages


class Agreement(unittest.TestCase):
    """The engine and PyTorch are two readings of one weight block."""

    @classmethod
    def setUpClass(cls):
        cls.library = Library()
        cls.detector = Detector(cls.library)
        path = pathlib.Path(tempfile.mkdtemp()) / "weights.bin"
        path.write_bytes(cls.library.weights())
        cls.network = FaceNetwork().eval()
        cls.network.load(path)

    def testOutputsAreEqual(self):
        random = numpy.random.default_rng(8)
        portrait = self.library.prepareInput(self.library.convert(synthetic.portrait()))
        noise = random.integers(0, 256, (3, SIDE, SIDE, 3)).astype(numpy.uint8)
        plain = [numpy.full((SIDE, SIDE, 3), level, numpy.uint8) for level in (0, 128, 255)]
        for number, picture in enumerate([portrait, *noise, *plain]):
            scores, offsets = self.detector.runNetwork(picture)
            with torch.no_grad():
                logits, boxes = self.network(toImages(picture[None]))
            # Sums of up to 1152 products in another order; offsets are of the order of 1 to 10.
            truth = torch.softmax(logits[0], 1).numpy()
            self.assertLess(numpy.abs(scores - truth).max(), 1e-5, number)
            self.assertLess(numpy.abs(offsets - boxes[0].numpy()).max(), 1e-4, number)

    def testSameBoxesFromBothRoads(self):
        """detect prepares, runs and decodes the same picture."""
        frame = self.library.convert(synthetic.portrait())
        scores, _ = self.detector.runNetwork(self.library.prepareInput(frame))
        boxes, found = self.detector.detect(frame, 0.3, 50)
        self.assertEqual(found[0], scores[:, 1].max())
        self.assertTrue((found > numpy.float32(0.3)).all() and (numpy.diff(found) <= 0).all())
        self.assertEqual(len(boxes), len(found))
        for limit in (0, 3):  # the box that exceeds the limit is the last one
            first, best = self.detector.detect(frame, 0, limit)
            self.assertEqual(len(first), limit + 1)
            self.assertEqual(best[0], found[0])
        self.assertEqual(len(self.detector.detect(frame, 1, 5)[0]), 0)


class Refusals(unittest.TestCase):
    def setUp(self):
        self.library = Library()

    def testPlanesThatDoNotFit(self):
        plane = numpy.zeros((5, 7), numpy.uint8)
        Frame(plane, plane[:3, :4], plane[:3, :4])
        fits = plane[:3, :4]
        for u, v in ((plane[:2, :4], fits), (fits, plane[:3, :3]), (plane, plane)):
            with self.assertRaises(ValueError):
                Frame(plane, u, v)

    def testSizesThatCannotBe(self):
        nothing = numpy.zeros((0, 0), numpy.uint8)
        with self.assertRaises(ValueError):
            self.library.prepareInput(Frame(nothing, nothing, nothing))
        with self.assertRaises(ValueError):
            self.library.convert(numpy.zeros((0, 5, 3), numpy.uint8))
        with self.assertRaises(ValueError):
            Detector(self.library).runNetwork(numpy.zeros((SIDE, SIDE), numpy.uint8))

    def testCallsFromElsewhere(self):
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
        for change in ({"width": 0}, {"height": -1}, {"width": 32769, "strideY": 32769},
                       {"strideY": 7}, {"strideUV": 3}, {"y": None}, {"u": None}, {"v": None}):
            self.assertEqual(prepare(**change), -1, change)
        good = ctypes.byref(frame.described())
        for result in (call.tavroPrepareInput(null, picture), call.tavroPrepareInput(good, null),
                       call.tavroConvertPicture(null, 24, good),
                       call.tavroConvertPicture(picture, 23, good),
                       call.tavroRunNetwork(null, picture, boxes, boxes),
                       call.tavroRunNetwork(handle, null, boxes, boxes),
                       call.tavroRunNetwork(handle, picture, null, boxes),
                       call.tavroDetect(null, good, threshold, 5, boxes, 9),
                       call.tavroDetect(handle, null, threshold, 5, boxes, 9),
                       call.tavroDetect(handle, good, threshold, -1, boxes, 9),
                       call.tavroDetect(handle, good, threshold, 5, null, 9),
                       call.tavroDetect(handle, good, threshold, 5, boxes, -1)):
            self.assertEqual(result, -1)
        self.assertLessEqual(call.tavroDetect(handle, good, threshold, 8, boxes, 2), 2)
        call.tavroReleaseDetector(null)

    def testALibraryThatIsMissing(self):
        with mock.patch.dict(os.environ, {"TAVRO_TRAINING_LIBRARY": "/nowhere/lib.so"}):
            with self.assertRaisesRegex(detector_library.NotBuilt, "/nowhere/lib.so"):
                Library()
        with mock.patch.dict(os.environ):
            os.environ.pop("TAVRO_TRAINING_LIBRARY", None)
            with mock.patch.object(detector_library, "ROOT", pathlib.Path(tempfile.mkdtemp())):
                with self.assertRaisesRegex(detector_library.NotBuilt, "--target tavro_training"):
                    Library()


if __name__ == "__main__":
    unittest.main()
