"""What training shows the network must be what the detector shows it, byte for byte."""

import tempfile
import unittest

import numpy
import torch

from training import calibrate, detector_library, weight_block
from training.detector_input import detectorInput
from training.network import FaceNetwork, toImages

# Smaller and larger than the network's input, of equal and of half width, odd, extreme; a step of
# eight and more takes a path of its own in the scaler.
SIZES = [(192, 192), (384, 384), (192, 100), (192, 333), (100, 192), (333, 192), (1280, 720),
         (1920, 1080), (640, 480), (400, 267), (267, 400), (97, 53), (53, 97), (383, 385), (1, 1),
         (2, 1), (1, 7), (3000, 40), (40, 3000), (2500, 1700), (192, 384), (384, 192)]


class DetectorInput(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.library = detector_library.Library()

    def testBytesAreThoseOfTheModule(self):
        random = numpy.random.default_rng(6)
        for width, height in SIZES:
            half = (height + 1) // 2, (width + 1) // 2
            for extremes in (False, True):
                y, u, v = (random.integers(0, 256, shape).astype(numpy.uint8)
                           for shape in ((height, width), half, half))
                if extremes:
                    y, u, v = ((plane > 127) * numpy.uint8(255) for plane in (y, u, v))
                expected = self.library.prepareInput(detector_library.Frame(y, u, v))
                found = detectorInput(*(torch.from_numpy(plane)[None] for plane in (y, u, v)))
                self.assertTrue(numpy.array_equal(found[0].numpy(), expected), (width, height))

    def testTheEngineComputesWhatTheFoldedNetworkDoes(self):
        """On the weights that are built in: both are float32, so they differ by roundings only.

        Sums have at most 576 terms in 31 layers, a relative error of about sqrt(576 * 31) half
        units of 2^-24 where roundings are independent: 8e-6 of the largest value. Ten times that is
        allowed.
        """
        detector = detector_library.Detector(self.library)
        network = FaceNetwork().eval()
        with tempfile.NamedTemporaryFile() as file:
            file.write(self.library.weights())
            file.flush()
            network.load(file.name)
        random = numpy.random.default_rng(8)
        smooth = numpy.linspace(0, 255, 192)[:, None, None] * numpy.ones((192, 3))
        for picture in (random.integers(0, 256, (192, 192, 3)), smooth, numpy.zeros((192, 192, 3))):
            picture = picture.astype(numpy.uint8)
            scores, offsets = detector.runNetwork(picture)
            with torch.no_grad():
                logits, expected = network(toImages(picture[None]))
            difference = numpy.abs(offsets - expected[0].numpy()).max()
            self.assertLess(difference, 8e-5 * numpy.abs(expected[0].numpy()).max())
            difference = numpy.abs(scores - logits[0].softmax(1).numpy()).max()
            self.assertLess(difference, 8e-5 * max(1, logits.abs().max().item()))


class Calibration(unittest.TestCase):
    def testShiftMovesEveryScoreByTheSame(self):
        network = FaceNetwork().eval()
        with tempfile.NamedTemporaryFile() as file:
            weight_block.write(file.name, calibrate.shifted(network.folded(), 0.7))
            moved = FaceNetwork().eval()
            moved.load(file.name)
        images = torch.rand(1, 3, 192, 192, generator=torch.Generator().manual_seed(3))
        with torch.no_grad():
            (before, boxes), (after, same) = network(images), moved(images)
        change = (after[..., 1] - after[..., 0]) - (before[..., 1] - before[..., 0])
        self.assertLess((change - 0.7).abs().max().item(), 1e-4)
        self.assertLess((boxes - same).abs().max().item(), 1e-4)


if __name__ == "__main__":
    unittest.main()
