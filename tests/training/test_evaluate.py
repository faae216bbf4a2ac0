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
        eyes, nose, mouth = "50 50 80 50", "65 65", "55 80 75 80"
        (cls.folder / "set" / "landmarks.txt").write_text(
            f"picture0.png 0 {eyes} {nose} {mouth} 1\n")

    def run_(self, *arguments):
        output, errors = io.StringIO(), io.StringIO()
        with contextlib.redirect_stdout(output), contextlib.redirect_stderr(errors):
            try:
                status = evaluate.main([str(argument) for argument in arguments])
            except SystemExit as stop:  # argparse
                status = stop.code
        return status, output.getvalue(), errors.getvalue()

    def test_three_pictures(self):
        status, text, errors = self.run_(
            "--data", self.folder / "set", "--peers", "--sides", 192, "--clips", "--output",
            self.folder / "out")
        self.assertEqual((status, errors), (0, ""))
        figures = json.loads((self.folder / "out" / "figures.json").read_text())
        every = figures["sizes"]["16 and more"]
        self.assertEqual((every["faces"], every["precision"], every["recall"]), (2, 0.5, 0.5))
        self.assertEqual(figures["sizes"]["8-16"]["ap"], None)
        self.assertEqual((figures["faceless_pictures"],
                          figures["false_alarms_per_faceless_picture"]),
                         (1, 0))
        self.assertEqual(set(figures["aspects"]), {"1:1", "4:3", "16:9", "9:16"})
        self.assertEqual(figures["picture_as_is"]["f1"], 0.5)
        self.assertEqual(set(figures["natural"]), {"aspect kept", "aspect kept, 192"})
        for name, row in figures["natural"].items():
            self.assertEqual((row["faces16"], row["recall"]), (2, 0.5), name)
        self.assertEqual(figures["false_alarms_aspect_kept"], 0)
        self.assertEqual([row["faces"] for row in figures["poses"].values()], [1, 0, 0])
        self.assertEqual(figures["poses"]["frontal"]["recall"], 1)
        self.assertEqual({kind: row["faces"] for kind, row in figures["clips"].items()},
                         {"pan": 1, "turn": 1, "darken": 1, "two people": 2, "no face": 0})
        self.assertGreater(figures["clips"]["pan"]["recall"], 0.9)
        self.assertEqual(len(figures["peers"]), 2)
        for name, peer in figures["peers"].items():
            self.assertEqual(peer["sizes"]["16 and more"]["recall"], 0.5, name)
        for title in ("By size", "By aspect", "Spoiled", "Steadiness", "False alarms", "alt2"):
            self.assertIn(title, text)
        for plot in ("precision_recall.png", "scores.png"):
            self.assertIsNotNone(cv2.imread(str(self.folder / "out" / plot)))

    def test_faults_are_told_in_one_line(self):
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

    def test_the_shift_of_a_picture_is_no_movement(self):
        class Ideal:  # finds the bright square, in frames that are pictures
            library = mock.Mock(convert=lambda image: mock.Mock(
                image=image, size=image.shape[1::-1]))

            @staticmethod
            def detect(frame, *_):
                return numpy.float32([synthetic.bright_part(frame.image)]), numpy.float32([0.9])

        whole = synthetic.write(self.folder / "squares", synthetic.squares(4, 4)[1:])
        evaluation = evaluate.Evaluation(Ideal(), {})
        for index, picture in enumerate(faces.load(whole)):
            scene = conditions.from_picture(picture, faces.read_image(picture))
            seen = steadiness.sightings(*evaluate.examine(Ideal(), scene))
            evaluation.nudge(index, scene, seen)
        for name, pairs in evaluation.nudges.items():
            steady = evaluation.compared(pairs)
            self.assertEqual((steady["faces"], steady["flips"]), (3, 0), name)
            self.assertLess(steady["p99_movement"], 1e-6, name)

    def test_limit_spreads_over_the_set(self):
        self.assertEqual(evaluate.chosen(list("abcdef"), 3), list("ace"))
        self.assertEqual(evaluate.chosen(list("abc"), 9), list("abc"))

    def test_brief_figures_are_the_same(self):
        status, _, errors = self.run_("--data", self.folder / "set", "--brief", "--output",
                                      self.folder / "brief")
        self.assertEqual((status, errors), (0, ""))
        figures = json.loads((self.folder / "brief" / "figures.json").read_text())
        self.assertEqual(figures["natural"]["aspect kept"]["recall"], 0.5)
        self.assertEqual((figures["aspects"], figures["faults"], figures["steadiness"]), ({},) * 3)

    def test_missing_peers_are_named(self):
        with self.assertRaisesRegex(FileNotFoundError, "opencv-data"):
            peers.load("/nowhere")
