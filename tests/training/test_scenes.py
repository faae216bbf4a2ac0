"""Boxes must stay with what they enclose, from the file to the network's input."""

import itertools
import unittest

import numpy
import torch

import synthetic
from training import backs, camera, detector_input, faces, pastes, scenes, views
from training.assignment import DOUBTFUL, FACE
from training.contract import SIDE
from training.picture_store import PictureStore, natural_width
from training.random_tensors import Random


class BoxLists(unittest.TestCase):
    def setUp(self):
        self.folder = synthetic.new_folder()
        (self.folder / "images").mkdir()

    def test_both_forms_are_read(self):
        (self.folder / "boxes.txt").write_text("a.jpg\n3\n9 9 4 5 2\n1 2 3.5 4 0\n5 6 7 8 1\nb.jpg\n0\n")
        first, second = faces.load(self.folder)
        self.assertEqual(first.boxes.tolist(), [[1, 2, 3.5, 4], [5, 6, 7, 8]])
        self.assertEqual(first.doubtful.tolist(), [False, True])
        self.assertEqual(first.lures.tolist(), [[9, 9, 4, 5]])
        self.assertEqual((second.name, len(second.boxes)), ("b.jpg", 0))

        (self.folder / "boxes.txt").rename(self.folder / "wider_face_val_bbx_gt.txt")
        (self.folder / "wider_face_val_bbx_gt.txt").write_text(
            "0--Parade/a.jpg\n3\n1 2 3 4 0 0 0 0 0 0\n1 2 3 4 2 0 0 0 0 0\n5 6 0 8 0 0 0 0 0 0\n"
            "b.jpg\n0\n0 0 0 0 0 0 0 0 0 0\nc.jpg\n1\n1 2 3 4 0 0 0 1 0 0\n")
        pictures = faces.load(self.folder)
        self.assertEqual([picture.doubtful.tolist() for picture in pictures],
                         [[False, True], [], [True]])

    def test_landmarks_tell_the_pose(self):
        (self.folder / "boxes.txt").write_text(
            "a b.jpg\n5\n0 0 100 120 0\n0 0 100 120 0\n0 0 0 120 0\n0 0 100 120 0\n0 0 50 60 0\n")
        (self.folder / "landmarks.txt").write_text(
            "a b.jpg 0 30 50 70 50 53 70 35 90 65 90 0.9\n"  # nose 3 % off
            "a b.jpg 1 30 50 70 50 62 70 35 90 65 90 0.9\n"  # 12 %
            "a b.jpg 3 30 50 45 50 38 70 35 90 65 90 0.9\n")  # eyes near each other
        self.assertEqual(faces.load(self.folder)[0].poses.tolist(),
                         [faces.FRONTAL, faces.HALF_PROFILE, faces.PROFILE, faces.UNKNOWN])
        (self.folder / "landmarks.txt").write_text("a b.jpg 0 30 50\n")
        with self.assertRaisesRegex(ValueError, "landmarks in line 1"):
            faces.load(self.folder)

    def test_a_sixteenth_is_held_back(self):
        names = [f"{number}.jpg" for number in range(2000)]
        (self.folder / "boxes.txt").write_text("".join(f"{name}\n0\n" for name in names))
        kept, held = ([picture.name for picture in faces.load(f"{self.folder}@{part}")]
                      for part in ("train", "val"))
        self.assertEqual(sorted(kept + held), sorted(names))
        self.assertAlmostEqual(len(held) / len(names), 1 / 16, delta=0.02)

    def test_what_is_no_list_is_refused(self):
        for text in (b"a.jpg\nmany\n", b"a.jpg\n2\n1 2 3 4 0\n", b"a.jpg\n1\n1 2 3\n", b"a.jpg\n",
                     b"a.jpg\n1\nnan 2 3 4 0\n", b"a.jpg\n1\n1 2 inf 4 0\n", b"\xff\n0\n"):
            (self.folder / "boxes.txt").write_bytes(text)
            with self.assertRaisesRegex(ValueError, "not a box list"):
                faces.load(self.folder)
        (self.folder / "boxes.txt").unlink()
        with self.assertRaises(FileNotFoundError):
            faces.load(self.folder)

    def test_pictures_that_are_none(self):
        synthetic.write(self.folder / "set", [(synthetic.portrait(), [(160, 9, 5, 5)], [0])])
        picture = faces.load(self.folder / "set")[0]
        for data, cause in ((None, "outside"), (b"no picture", "not a picture"),
                            (b"P6 60000 60000 255 ", "not a picture"), (b"", "not a picture")):
            if data is not None:
                picture.path.write_bytes(data)
            with self.assertRaisesRegex(ValueError, f"picture0.png: .*{cause}"):
                faces.read_image(picture)


class Scenes(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.store = PictureStore([synthetic.write(
            synthetic.new_folder() / "set", synthetic.squares(3, 24))])

    def test_squeezed_pictures_are_told_by_their_faces(self):
        square, wide = numpy.zeros((90, 90, 3)), numpy.zeros((60, 90, 3))
        for image, width, expected in ((square, 79, 1), (square, 85, 1), (square, 59.25, 4 / 3),
                                       (square, 105.33, 0.75), (square, 30, 16 / 9), (wide, 50, 1)):
            boxes = numpy.float32([[0, 0, width, 100]])
            self.assertAlmostEqual(natural_width(image, boxes), expected, delta=0.001)
        self.assertEqual(natural_width(square, numpy.zeros((0, 4))), 1)

    def test_views_of_natural_shape_are_hardly_stretched(self):
        self.store.widths[:12] = 1.5
        self.addCleanup(self.store.widths.fill_, 1)
        for natural, most in ((1, 1.2), (0, 2.3)):
            chosen = views.choose_views(self.store, Random("cpu", 3), 300, SIDE, (7, 190), natural)
            stretch = chosen.scales[:, 0].abs() / chosen.scales[:, 1]
            if natural:
                stretch = stretch / self.store.widths[chosen.pictures]
            self.assertLess(torch.maximum(stretch, 1 / stretch).max().item(), most * 1.6)
            self.assertEqual((torch.maximum(stretch, 1 / stretch) > 1.2).any().item(), not natural)

    def test_wanted_sizes_come_evenly(self):
        """Half of the logarithm's range holds about half of what views were aimed at, faces or
        lures; of the lures nothing is left in a scene's boxes."""
        folder = synthetic.new_folder() / "lures"
        synthetic.write(folder, [(image, boxes, [faces.LURE] * len(boxes))
                                 for image, boxes, _ in synthetic.squares(3, 24)])
        lures = PictureStore([folder])
        for store in self.store, lures:
            inside = torch.zeros(600, dtype=torch.bool)
            row, box, scale = views.choose_faces(store, Random("cpu", 4), torch.ones(600, 2),
                                                 inside, SIDE // 3, (20, 80))
            sizes = (box[:, 2:] - box[:, :2]).prod(1).sqrt() * scale[:, 0]
            self.assertGreater(sizes.min().item(), 18)
            self.assertAlmostEqual((sizes < 40).float().mean().item(), 0.5, delta=0.15)
            self.assertTrue(((store.kinds == FACE) | store.lures)[row].any(1).all())
        kinds = scenes.Scenes(lures, with_pastes=False).batch(Random("cpu", 5), 8)[2]
        self.assertFalse(kinds.any())

    def test_every_seed_step_and_process_has_its_own(self):
        drawn = {}
        for numbers in [(1, 2, 3), (1 << 20, 2, 3), (1, 1 << 20, 3), (1, 2, 4)]:
            drawn[numbers] = scenes.Scenes(self.store).batch(Random("cpu", *numbers), 2)[0]
            again = scenes.Scenes(self.store).batch(Random("cpu", *numbers), 2)[0]
            self.assertTrue(torch.equal(drawn[numbers], again))
        for one, two in itertools.combinations(drawn.values(), 2):
            self.assertFalse(torch.equal(one, two))

    def test_boxes_follow_their_pixels(self):
        """The bright square fills its box in every layout, however it is moved and stretched."""
        random = Random("cpu", 11)
        for tiles_along, sizes in ((1, (20, 100)), (2, (20, 60)), (3, (20, 40))):
            pictures, boxes, kinds = scenes.mosaic(self.store, random, 20, tiles_along, sizes)
            bright = pictures.mean(1) > 150
            seen = 0
            for row, box, kind in zip(*self.each(boxes, kinds)):
                if kind != FACE:
                    continue
                x1, y1, x2, y2 = box.tolist()
                # A turned square is described by the box of its ellipse: look at the middle part.
                cx, cy, w, h = (x1 + x2) / 2, (y1 + y2) / 2, x2 - x1, y2 - y1
                inner = bright[row, int(cy - h * .3):int(cy + h * .3) + 1,
                               int(cx - w * .3):int(cx + w * .3) + 1]
                self.assertGreater(inner.float().mean().item(), 0.95, (tiles_along, box))
                seen += 1
            self.assertGreater(seen, 10)

    def test_upright_boxes_are_exact(self):
        rows = torch.arange(1, 24)
        count = len(rows)
        for mirror in (1, -1):
            windows = views.Views(rows, self.store.sizes[rows] / 2,
                                  SIDE / self.store.sizes[rows] * torch.tensor([mirror, 1.0]),
                                  torch.zeros(count))
            boxes = windows.project(self.store.boxes[rows], SIDE)[:, 0]
            bright = views.render(self.store, windows, SIDE,
                                  torch.zeros(count, dtype=torch.long)).mean(1) > 155
            for box, mask in zip(boxes, bright):
                ys, xs = mask.nonzero().unbind(1)
                found = torch.stack([xs.min(), ys.min(), xs.max() + 1, ys.max() + 1]).float()
                self.assertLess((found - box).abs().max().item(), 1.01)

    def test_cut_small_and_covered_faces_are_doubtful(self):
        boxes = torch.tensor([[[10., 10, 40, 40], [-20, 10, 10, 40], [-10, 10, 20, 40],
                               [50, 50, 56, 56], [-30, -30, -5, -5]]])
        cut, kinds = views.visible_boxes(boxes, torch.full((1, 5), FACE), SIDE)
        self.assertEqual(kinds.tolist(), [[FACE, DOUBTFUL, FACE, DOUBTFUL, 0]])
        self.assertEqual(cut[0, 2].tolist(), [0, 10, 20, 40])

    def test_pasted_faces_are_where_their_boxes_say(self):
        random = Random("cpu", 5)
        paster = pastes.Pastes(self.store)
        pictures = torch.zeros(40, 3, SIDE, SIDE)
        boxes, kinds = paster.add_to(random, pictures, torch.zeros(40, 1, 4),
                                    torch.zeros(40, 1, dtype=torch.long))
        right = []
        for row, box, kind in zip(*self.each(boxes, kinds)):
            if kind != FACE:
                continue
            middle, half = (box[:2] + box[2:]) / 2, (box[2:] - box[:2]) / 2
            def is_bright(x, y):
                column, line = (middle + half * torch.tensor([x, y])).int().tolist()
                return (0 <= column < SIDE and 0 <= line < SIDE and
                        pictures[row, :, line, column].mean().item() > 100)
            around = [is_bright(x, y) for x, y in ((-1.5, 0), (1.5, 0), (0, -1.5), (0, 1.5))]
            right.append(is_bright(0, 0) and not any(around))
        self.assertGreater(len(right), 15)
        self.assertGreater(sum(right), 0.8 * len(right))  # a few hide behind a later paste

    @staticmethod
    def each(boxes, kinds):
        rows = torch.arange(len(boxes)).repeat_interleave(boxes.shape[1])
        return rows.tolist(), boxes.flatten(0, 1), kinds.flatten().tolist()


class BacksOfHeads(unittest.TestCase):
    def test_faces_go_and_all_else_stays(self):
        """A face is a grid of dark dots on skin: after it is covered, no dot is left in its middle."""
        image = numpy.full((200, 200, 3), (110, 140, 200), numpy.uint8)
        image[60:140:8, 60:140:8] = 0
        folder, output = synthetic.new_folder(), synthetic.new_folder() / "backs"
        face, small = (60, 60, 80, 80), (10, 10, 12, 12)
        synthetic.write(folder, [(image, [face], [False]), (image, [face, small], [False, False]),
                                 (image, [face], [True]), (image, [], [])])
        status, text, _ = synthetic.call(backs.main, "--data", folder, "--output", output)
        self.assertEqual((status, text), (0, f"{output}: 1 pictures\n"))
        covered, = faces.load(output)
        self.assertEqual((covered.name, len(covered.boxes)), ("back_00000.jpg", 0))
        self.assertEqual(covered.lures.tolist(), [list(face)])
        result = faces.read_image(covered).astype(int)
        dots, skin = result[76:108:8, 84:116:8], result[80:112:8, 88:120:8]
        self.assertLess(abs(dots.mean() - skin.mean()), 20)  # 150 before
        change = numpy.abs(result - image).mean(2)
        for part in numpy.s_[:20], numpy.s_[165:], numpy.s_[:, :40], numpy.s_[:, 160:]:
            self.assertLess(change[part].mean(), 2)
        self.assertEqual(synthetic.call(backs.main, "--data", folder, "--output", output)[0], 2)


class Camera(unittest.TestCase):
    def test_planes_and_colours_are_inverse(self):
        """Grey and colours survive 4:2:0 and the detector's conversion, but for its roundings."""
        for colour in ((0, 0, 0), (255, 255, 255), (200, 30, 60), (20, 90, 220), (90, 160, 40)):
            scene = torch.tensor(colour).float().view(1, 3, 1, 1).expand(1, 3, SIDE, SIDE)
            planes = [plane.round() for plane in camera.to_planes(scene)]
            found = detector_input.detector_input(*planes)[0, 50, 50].tolist()[::-1]
            self.assertLess(numpy.abs(numpy.subtract(found, colour)).max(), 7, (colour, found))

    def test_fine_steps_keep_the_plane_coarse_ones_do_not(self):
        plane = torch.rand(2, 64, 64, generator=torch.Generator().manual_seed(1)) * 255
        steps = camera.LUMA_STEPS.expand(2, 8, 8)
        fine = camera.quantise(plane, steps * 1e-4, camera.cosines())
        self.assertLess((fine - plane).abs().max().item(), 0.02)
        self.assertGreater((camera.quantise(plane, steps, camera.cosines()) - plane)
                           .abs().mean().item(), 1)
