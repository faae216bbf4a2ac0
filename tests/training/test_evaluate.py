"""The evaluation as a user runs it, on three pictures whose outcome is known."""

import contextlib
import io
import json
import pathlib
import tempfile
import unittest
from unittest import mock

import cv2
import numpy

import synthetic
from training import conditions, detector_library, evaluate, faces, peers, steadiness


class Evaluate(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = pathlib.Path(tempfile.mkdtemp())
        portrait = synthetic.portrait()
        library = detector_library.Library()
        boxes, _ = detector_library.Detector(library).detect(library.convert(portrait))
        cls.face = [*boxes[0, :2], *(boxes[0, 2:] - boxes[0, :2])]
        empty = numpy.full((90, 110, 3), 120, numpy.uint8)
        # A face where it is, one where it isn't, and none.
        synthetic.write(cls.folder / "set", [(portrait, [cls.face], [0]),
                                             (portrait, [(0, 0, 30, 30)], [0]), (empty, [], [])])

    def run_(self, *arguments):
        output, errors = io.StringIO(), io.StringIO()
        with contextlib.redirect_stdout(output), contextlib.redirect_stderr(errors):
            try:
                status = evaluate.main([str(argument) for argument in arguments])
            except SystemExit as stop:  # argparse
                status = stop.code
        return status, output.getvalue(), errors.getvalue()

    def testThreePictures(self):
        status, text, errors = self.run_("--data", self.folder / "set", "--peers", "--output",
                                         self.folder / "out")
        self.assertEqual((status, errors), (0, ""))
        figures = json.loads((self.folder / "out" / "figures.json").read_text())
        every = figures["sizes"]["16 and more"]
        self.assertEqual((every["faces"], every["precision"], every["recall"]), (2, 0.5, 0.5))
        self.assertEqual(figures["sizes"]["8-16"]["ap"], None)
        self.assertEqual((figures["facelessPictures"], figures["falseAlarmsPerFacelessPicture"]),
                         (1, 0))
        self.assertEqual(set(figures["aspects"]), {"1:1", "4:3", "16:9", "9:16"})
        self.assertEqual(figures["pictureAsIs"]["f1"], 0.5)
        self.assertEqual(len(figures["peers"]), 2)
        for name, peer in figures["peers"].items():
            self.assertEqual(peer["sizes"]["16 and more"]["recall"], 0.5, name)
        for title in ("By size", "By aspect", "Spoiled", "Steadiness", "False alarms", "alt2"):
            self.assertIn(title, text)
        for plot in ("precision_recall.png", "scores.png"):
            self.assertIsNotNone(cv2.imread(str(self.folder / "out" / plot)))

    def testFaultsAreToldInOneLine(self):
        damaged = synthetic.write(self.folder / "damaged", synthetic.squares(1, 1))
        (damaged / "images" / "picture0.png").write_bytes(b"no picture")
        data = ("--data", self.folder / "set")
        for arguments, cause in (
                (("--data", self.folder / "nowhere"), "nowhere"),
                (("--data", damaged), "picture0.png: not a picture"),
                ((*data, "--weights", self.folder / "none.bin"), "none.bin"),
                ((*data, "--weights", damaged / "boxes.txt"), "391296"),
                ((*data, "--output", damaged / "boxes.txt"), "boxes.txt")):
            status, _, errors = self.run_(*arguments)
            self.assertEqual((status, errors.count("\n")), (2, 1), errors)
            self.assertIn(cause, errors)
        for arguments in ((), (*data, "--limit", "0")):
            self.assertEqual(self.run_(*arguments)[0], 2)

    def testTheShiftOfAPictureIsNoMovement(self):
        class Ideal:  # finds the bright square, in frames that are pictures
            library = mock.Mock(convert=lambda image: mock.Mock(
                image=image, size=image.shape[1::-1]))

            @staticmethod
            def detect(frame, *_):
                return numpy.float32([synthetic.brightPart(frame.image)]), numpy.float32([0.9])

        whole = synthetic.write(self.folder / "squares", synthetic.squares(4, 4)[1:])
        evaluation = evaluate.Evaluation(Ideal(), {})
        for index, picture in enumerate(faces.load(whole)):
            scene = conditions.fromPicture(picture, faces.readImage(picture))
            seen = steadiness.sightings(*evaluate.examine(Ideal(), scene))
            evaluation.nudge(index, scene, seen)
        for name, pairs in evaluation.nudges.items():
            steady = evaluation.compared(pairs)
            self.assertEqual((steady["faces"], steady["flips"]), (3, 0), name)
            self.assertLess(steady["p99Movement"], 1e-6, name)

    def testLimitSpreadsOverTheSet(self):
        self.assertEqual(evaluate.chosen(list("abcdef"), 3), list("ace"))
        self.assertEqual(evaluate.chosen(list("abc"), 9), list("abc"))

    def testMissingPeersAreNamed(self):
        with self.assertRaisesRegex(FileNotFoundError, "opencv-data"):
            peers.load("/nowhere")
