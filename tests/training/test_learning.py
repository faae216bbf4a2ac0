"""Assignment, losses, folding and what a weight block holds."""

import unittest

import numpy
import torch

from synthetic import call, new_folder, overlap
from training import average, calibrate, weight_block
from training.assignment import DOUBTFUL, FACE, assign
from training.contract import SIDE, WEIGHT_BYTES
from training.loss import complete_overlap, focal, hardest, shares, unsteadiness
from training.network import FaceNetwork
from training.priors import corners, decode, encode, prior_boxes


class Assignment(unittest.TestCase):
    def setUp(self):
        random = torch.Generator().manual_seed(2)
        self.priors = prior_boxes()
        side = torch.exp(torch.rand(6, 9, 2, generator=random) * 3 + 2)
        centre = torch.rand(6, 9, 2, generator=random) * SIDE
        self.boxes = corners(torch.cat([centre, side], 2))
        self.kinds = torch.randint(0, 3, (6, 9), generator=random)

    def test_against_the_definition(self):
        positive, negative, index = assign(self.boxes, self.kinds, self.priors)
        at = corners(self.priors).tolist()
        for picture in range(6):
            faces = [(i, box) for i, box in enumerate(self.boxes[picture].tolist())
                     if self.kinds[picture, i] == FACE]
            doubtful = [box for i, box in enumerate(self.boxes[picture].tolist())
                        if self.kinds[picture, i] == DOUBTFUL]
            overlaps = {i: [overlap(prior, box) for prior in at] for i, box in faces}
            best_of = {i: sorted(range(len(at)), key=lambda p, i=i: -overlaps[i][p])[:3]
                      for i, _ in faces}
            for prior in range(0, len(at), 7):
                best = max((overlaps[i][prior] for i, _ in faces), default=0)
                chosen = any(prior == best_of[i][0] or
                             prior in best_of[i] and overlaps[i][prior] > 0.2 for i, _ in faces)
                self.assertEqual(bool(positive[picture, prior]), chosen or best >= 0.4)
                if best >= 0.25 or any(overlap(at[prior], box) > 0.3 for box in doubtful):
                    self.assertFalse(negative[picture, prior])
                elif not chosen and all(overlap(at[prior], box) == 0 for box in doubtful):
                    self.assertTrue(negative[picture, prior])
            for i, _ in faces:
                self.assertTrue(any(int(index[picture, prior]) == i for prior in best_of[i]))

    def test_offsets_are_inverse(self):
        boxes = self.boxes[0, :5]
        priors = self.priors[[0, 700, 1500, 1900, 2080]]
        self.assertLess((decode(encode(boxes, priors), priors) - boxes).abs().max().item(), 1e-3)


class Losses(unittest.TestCase):
    def test_boxes(self):
        truth = torch.tensor([[10.0, 10, 20, 30]]).repeat(4, 1)
        found = torch.tensor([[10.0, 10, 20, 30], [15, 10, 25, 30], [40, 40, 50, 60],
                              [5, 15, 25, 25]])
        value = complete_overlap(found, truth).tolist()
        self.assertAlmostEqual(value[0], 0, places=6)
        # Moved by half its width: overlap 1/3, centres 5 apart, hull 15 x 20.
        self.assertAlmostEqual(value[1], 1 - 1 / 3 + 25 / 625, places=5)
        self.assertGreater(value[2], 1)
        self.assertGreater(value[3], 1 - 100 / 300)  # the other shape costs more than the overlap

    def test_scores(self):
        """Wrong answers count, right ones hardly count, and those that aren't asked for don't."""
        logit = torch.tensor([[3.0, -3.0, 4.0, -4.0, 0.0]])
        positive = torch.tensor([[True, True, False, False, False]])
        negative = torch.tensor([[False, False, True, True, False]])
        share = torch.tensor([[0.5, 1.0, 1.0, 1.0, 1.0]])
        for loss in (focal, hardest):
            alone = [loss(logit, positive & one, negative & one, share).item()
                     for one in torch.eye(5, dtype=torch.bool)]
            total = loss(logit, positive, negative, share).item()
            self.assertAlmostEqual(total, sum(alone), places=4)
            self.assertEqual(alone[4], 0)
            whole = loss(logit, positive, negative, torch.ones(1, 5)).item()
            self.assertAlmostEqual(whole - total, alone[0], places=4)  # it counted a half
            self.assertGreater(alone[1], 20 * alone[0])
            self.assertGreater(alone[2], 20 * alone[3])

    def test_steady_answers_cost_nothing(self):
        priors = prior_boxes()
        positive = torch.zeros(1, len(priors), dtype=torch.bool)
        positive[0, 5] = True  # a prior of 32 pixels
        logits = torch.tensor([0.0, 1.0]).repeat(1, len(priors), 1)
        boxes = corners(priors)[None] + 3
        first, moved, other = (encode(boxes + torch.tensor([x, y, x, y]), priors)
                               for x, y in ((0., 0.), (1., -1.), (1., 0.)))
        for second, raised, expected in ((moved, 0, 0), (other, 0, 0.5 / 32),
                                         (moved, 2, (0.952574 - 0.731059) ** 2)):
            found = unsteadiness((logits, first), (logits + torch.tensor([0., raised]), second),
                                 (1, -1), positive, priors)
            self.assertAlmostEqual(found.item(), expected, places=5)
        self.assertEqual(unsteadiness((logits, first), (logits, other), (1, -1), positive & False,
                                      priors).item(), 0)

    def test_faces_of_many_priors_count_less(self):
        index = torch.tensor([[0] * 12 + [1] * 2 + [0] * 2, [1] * 6 + [0] * 10])
        positive = torch.tensor([[True] * 14 + [False] * 2, [True] * 6 + [False] * 10])
        found = shares(positive, index, 2, 0.5)
        expected = torch.tensor([[0.5] * 12 + [1.0] * 4, [0.5 ** 0.5] * 6 + [1.0] * 10])
        self.assertLess((found - expected).abs().max().item(), 1e-6)
        self.assertTrue(torch.equal(shares(positive, index, 2, 0), torch.ones(2, 16)))


def loaded(path):
    network = FaceNetwork().eval()
    network.load(path)
    return network


class Network(unittest.TestCase):
    def test_folding_changes_nothing(self):
        torch.manual_seed(4)
        network = FaceNetwork()
        network.measure_normalisation([torch.rand(8, 3, SIDE, SIDE) for _ in range(2)])
        for unit in network.units():  # trained ones aren't the identity
            if unit.normalisation is not None:
                torch.nn.init.uniform_(unit.normalisation.weight, 0.5, 1.5)
                torch.nn.init.uniform_(unit.normalisation.bias, -0.3, 0.3)
        images = torch.rand(2, 3, SIDE, SIDE)
        path = new_folder() / "weights.bin"
        network.save(path)
        self.assertEqual(path.stat().st_size, WEIGHT_BYTES)
        folded, restored = loaded(path), loaded(path)
        folded.fold()
        restored.restore_normalisation(images)
        with torch.no_grad():
            truth = network(images)
            for other in (loaded(path), folded, restored):
                for a, b in zip(truth, other(images)):
                    self.assertLess((a - b).abs().max().item(), 1e-4 * a.abs().max().item())

    def test_damaged_blocks_are_refused(self):
        path = new_folder() / "weights.bin"
        path.write_bytes(b"0" * 1000)
        with self.assertRaisesRegex(ValueError, "1000 bytes"):
            FaceNetwork().load(path)
        path.write_bytes(b"\xff" * WEIGHT_BYTES)
        with self.assertRaisesRegex(ValueError, "not finite"):
            FaceNetwork().load(path)
        network = FaceNetwork()
        network.units()[0].convolution.weight.data[0] = float("nan")
        with self.assertRaisesRegex(ValueError, "conv1.0.weight"):
            network.save(path)

    def test_the_mean_of_blocks_counts_each_as_often_as_it_is_named(self):
        folder = new_folder()
        first, second = FaceNetwork().folded(), FaceNetwork().folded()
        one, two, output = (folder / name for name in ("first", "second", "mean"))
        weight_block.write(one, first)
        weight_block.write(two, second)
        self.assertEqual(call(average.main, one, two, one, "--output", output)[0], 0)
        for name, values in weight_block.read(output, FaceNetwork().block_shapes()).items():
            numpy.testing.assert_allclose(values, (2 * first[name] + second[name]) / 3, 1e-6, 1e-7)

    def test_the_shift_moves_every_score_by_the_same(self):
        network = FaceNetwork().eval()
        path = new_folder() / "weights.bin"
        weight_block.write(path, calibrate.shifted(network.folded(), 0.7))
        moved = loaded(path)
        images = torch.rand(1, 3, SIDE, SIDE, generator=torch.Generator().manual_seed(3))
        with torch.no_grad():
            (before, boxes), (after, same) = network(images), moved(images)
        change = (after[..., 1] - after[..., 0]) - (before[..., 1] - before[..., 0])
        self.assertLess((change - 0.7).abs().max().item(), 1e-4)
        self.assertLess((boxes - same).abs().max().item(), 1e-4)

    def test_quiet_enough(self):
        for scores, most, expected in (([0.2, 0.9, 0.5], 1, 0.5), ([0.2, 0.9, 0.5], 0, 0.9),
                                       ([0.2, 0.9, 0.5], 2.9, 0.2), ([0.2], 1, 0), ([], 0, 0),
                                       ([0.2, 0.3], float("inf"), 0)):
            self.assertEqual(calibrate.quiet_threshold(scores, most), expected)
