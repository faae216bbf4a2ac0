"""What training shows the network must be what the detector shows it, byte for byte."""

import unittest

import numpy
import torch

from training import detector_library
from training.detector_input import detectorInput

# Smaller and larger than the network's input, of equal and of half width, odd, extreme; a step of
# eight and more takes a path of its own in the scaler.
SIZES = [(192, 192), (384, 384), (192, 100), (192, 333), (100, 192), (333, 192), (1280, 720),
         (1920, 1080), (640, 480), (400, 267), (267, 400), (97, 53), (53, 97), (383, 385), (1, 1),
         (2, 1), (1, 7), (3000, 40), (40, 3000), (2500, 1700), (192, 384), (384, 192)]


class DetectorInput(unittest.TestCase):
    def testBytesAreThoseOfTheModule(self):
        library = detector_library.Library()
        random = numpy.random.default_rng(6)
        for width, height in SIZES:
            half = (height + 1) // 2, (width + 1) // 2
            for extremes in (False, True):
                y, u, v = (random.integers(0, 256, shape).astype(numpy.uint8)
                           for shape in ((height, width), half, half))
                if extremes:
                    y, u, v = ((plane > 127) * numpy.uint8(255) for plane in (y, u, v))
                expected = library.prepareInput(detector_library.Frame(y, u, v))
                found = detectorInput(*(torch.from_numpy(plane)[None] for plane in (y, u, v)))
                self.assertTrue(numpy.array_equal(found[0].numpy(), expected), (width, height))


if __name__ == "__main__":
    unittest.main()
