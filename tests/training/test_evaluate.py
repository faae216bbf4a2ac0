"""The evaluation as a user runs it, on three pictures whose outcome is known; and what it makes
of pictures: moving scenes must know where their faces are, and what other cameras deliver must keep
its boxes on them."""

import json
import unittest
from unittest import mock

import cv2
import numpy

import synthetic
from training import clips, conditions, detector_library, evaluate, faces, peers, steadiness


class Evaluate(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = synthetic.new_folder()
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

    def test_three_pictures(self):
        status, text, errors = synthetic.call(
            evaluate.main, "--data", self.folder / "set", "--peers", "--sides", 192, "--clips",
            "--output", self.folder / "out")
        self.assertEqual((status, errors), (0, ""))
        figures = json.loads((self.folder / "out" / "figures.json").read_text())
        every = figures["sizes"]["16 and more"]
        self.assertEqual((every["faces"], every["precision"], every["recall"]), (2, 0.5, 0.5))
        self.assertEqual(figures["sizes"]["8-16"]["ap"], None)
        self.assertEqual((figures["faceless_pictures"],
                          figures["false_alarms_per_faceless_picture"]), (1, 0))
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
            status, _, errors = synthetic.call(evaluate.main, *arguments)
            self.assertEqual((status, errors.count("\n")), (2, 1), errors)
            self.assertIn(cause, errors)
        for arguments in ((), (*data, "--limit", "0")):
            self.assertEqual(synthetic.call(evaluate.main, *arguments)[0], 2)

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
        status, _, errors = synthetic.call(evaluate.main, "--data", self.folder / "set", "--brief",
                                           "--output", self.folder / "brief")
        self.assertEqual((status, errors), (0, ""))
        figures = json.loads((self.folder / "brief" / "figures.json").read_text())
        self.assertEqual(figures["natural"]["aspect kept"]["recall"], 0.5)
        self.assertEqual((figures["aspects"], figures["faults"], figures["steadiness"]), ({},) * 3)

    def test_missing_peers_are_named(self):
        with self.assertRaisesRegex(FileNotFoundError, "opencv-data"):
            peers.load("/nowhere")


class Clips(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.pictures = faces.load(synthetic.write(
            synthetic.new_folder() / "set", synthetic.squares(7, 12)))

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
        yield conditions.from_picture(faces.Picture(
            str(number), None, numpy.float32(boxes).reshape(-1, 4), numpy.array(doubtful, bool),
            numpy.zeros(len(boxes), int), numpy.zeros((0, 4), numpy.float32)), image)


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
