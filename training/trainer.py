"""One process's part of a run: its batches, and the network that learns from them."""

import copy
import json
import math
import time

import torch
from torch import distributed

from training import camera, detector_input, plots
from training.contract import SIDE
from training.loss import Loss
from training.network import FaceNetwork, to_images
from training.priors import prior_boxes
from training.random_tensors import Random
from training.scenes import Scenes

AVERAGE_DECAY = 0.9995  # of the averaged weights, a step
WARM_UP_STEPS = 500
LEAST_RATE = 0.005  # of the highest rate, at the end
WEIGHT_DECAY = 1e-4
LONGEST_GRADIENT = 10.0
STEADY_SHARE = 0.25  # of a batch, seen twice where steadiness is learned
STEADY_SHIFTS = [(1, 0), (0, 1), (-1, 0), (0, -1), (1, 1), (-1, -1), (1, -1), (-1, 1)]
REPLAY_BATCHES = 8  # how long a batch waits until it is seen again, mirrored
MEASURED_BATCHES = 60  # for the statistics of the normalisations in the weights that leave
CHECKPOINT = "checkpoint.pt"


class Batches:
    """An endless row of batches: bytes n x 192 x 192 x 3 as the detector sees them, boxes, kinds.

    Each is seen twice, the second time mirrored and a while later: making them costs about as much
    as learning from them (Choi and others, "Faster neural network training with data echoing").
    What comes at a step depends on the seed and the step alone.
    """

    def __init__(self, store, options, rank):
        self.scenes = Scenes(store, with_pastes=not options.no_pastes, natural=options.natural)
        self.options, self.rank = options, rank
        self.waiting = {}

    def make(self, number, rank):
        random = Random(self.options.device, self.options.seed, number, rank)
        scenes, boxes, kinds = self.scenes.batch(random, self.options.batch)
        return detector_input.detector_input(*camera.shoot(random, scenes)), boxes, kinds

    def images(self, numbers):
        """Images to take statistics from: the same in all processes."""
        return (to_images(self.make(number, 0)[0]) for number in numbers)

    def next(self, step):
        """The batch of a step: new ones at even steps, mirrored ones at odd steps."""
        number = step // 2
        if step % 2 == 0:
            self.waiting[number] = self.make(number, self.rank)
            return self.waiting[number]
        number -= REPLAY_BATCHES
        pictures, boxes, kinds = self.waiting.pop(number, None) or self.make(number, self.rank)
        mirrored = torch.stack([SIDE - boxes[..., 2], boxes[..., 1],
                                SIDE - boxes[..., 0], boxes[..., 3]], -1)
        return pictures.flip(2), mirrored, kinds


class Trainer:
    """The network in training, its average, the optimiser: all that a checkpoint holds."""

    def __init__(self, options, batches):
        self.options, self.batches = options, batches
        torch.manual_seed(options.seed)
        self.network = FaceNetwork().to(options.device)
        if options.start and not options.resume:
            self.network.load(options.start)
        if options.folded:
            self.network.fold()
        elif options.start and not options.resume:
            self.network.restore_normalisation(torch.cat(list(batches.images([-1, -2, -3, -4]))))
        self.average = copy.deepcopy(self.network)
        decayed = [p for p in self.network.parameters() if p.dim() > 1]
        others = [p for p in self.network.parameters() if p.dim() <= 1]
        self.optimiser = torch.optim.AdamW(
            [{"params": decayed, "weight_decay": WEIGHT_DECAY},
             {"params": others, "weight_decay": 0.0}], lr=options.rate)
        self.loss = Loss(prior_boxes().to(options.device), options.score_loss, options.box_loss,
                         options.balance)
        self.step, self.history, self.progress = 0, [], 0.0
        self.seconds = self.seconds_before = 0.0
        self.started = time.time()

    @property
    def samples(self):
        """How many have been seen, by all processes."""
        return self.step * self.options.batch * self.options.processes

    def rate(self):
        """Warm-up, then half a cosine (Loshchilov and Hutter, 2017)."""
        cosine = LEAST_RATE + (1 - LEAST_RATE) * (1 + math.cos(math.pi * self.progress)) / 2
        return self.options.rate * min(1.0, (self.step + 1) / WARM_UP_STEPS) * cosine

    def train(self):
        """One step; returns the two losses."""
        pictures, boxes, kinds = self.batches.next(self.step)
        self.network.train()
        for group in self.optimiser.param_groups:
            group["lr"] = self.rate()
        outputs = self.answer(pictures)
        score, box = self.loss(*outputs, boxes, kinds)
        total = score + box
        if self.options.steady:
            total = total + self.options.steady * self.unsteadiness(pictures, outputs, boxes, kinds)
        self.optimiser.zero_grad(set_to_none=True)
        total.backward()
        self.step += 1
        self.agree()
        torch.nn.utils.clip_grad_norm_(self.network.parameters(), LONGEST_GRADIENT)
        self.optimiser.step()
        self.seconds = self.seconds_before + time.time() - self.started
        decay = min(AVERAGE_DECAY, (1 + self.step) / (10 + self.step))
        with torch.no_grad():
            for mean, value in zip(self.average.parameters(), self.network.parameters()):
                mean.lerp_(value, 1 - decay)
        return score.detach(), box.detach()

    def answer(self, pictures):
        with torch.autocast(self.options.device.split(":")[0], torch.bfloat16,
                            enabled=self.options.bfloat16):
            outputs = self.network(to_images(pictures))
        return [values.float() for values in outputs]

    def unsteadiness(self, pictures, outputs, boxes, kinds):
        """Of some of the pictures, moved by a pixel along each axis."""
        few = math.ceil(len(pictures) * STEADY_SHARE)
        shift = STEADY_SHIFTS[self.step % len(STEADY_SHIFTS)]
        # What comes in at one edge is what went out at the other one: a seam as narrow as this
        # hides no face.
        moved = pictures[:few].roll((shift[1], shift[0]), (1, 2))
        return self.loss.steadiness([values[:few] for values in outputs], self.answer(moved),
                                    shift, boxes[:few], kinds[:few])

    def share(self):
        """How much of the run is done, by this process's clock."""
        by_samples = self.samples / self.options.samples
        by_time = self.seconds / 3600 / self.options.hours if self.options.hours else 0
        return torch.tensor([max(by_samples, by_time)]).clamp(max=1)

    def agree(self):
        """Averages over the processes the gradients and how far the run has come."""
        gradients = [p.grad for p in self.network.parameters()]
        flat = torch.cat([gradient.flatten() for gradient in gradients])
        flat = torch.cat([flat, self.share().to(flat)])
        if self.options.processes > 1:
            distributed.all_reduce(flat)
            flat /= self.options.processes
            parts = flat[:-1].split([gradient.numel() for gradient in gradients])
            for gradient, part in zip(gradients, parts):
                gradient.copy_(part.view_as(gradient))
        self.progress = flat[-1].item()

    def log(self, losses):
        """Keeps the means of the steps' losses for log and curves."""
        score, box = torch.stack(losses).mean(0).tolist()
        self.history.append({"samples": self.samples, "score": round(score, 5),
                             "box": round(box, 5), "rate": self.rate(),
                             "seconds": round(self.seconds)})

    def save(self, folder):
        """Weight block, checkpoint, log and curves. Files are replaced at once or not at all.

        Raises ValueError if the weights are no numbers any more; the last checkpoint stays then.
        """
        measured = copy.deepcopy(self.average)
        measured.measure_normalisation(
            self.batches.images(1 << 30 | i for i in range(MEASURED_BATCHES)))
        replace(folder / "weights.bin", measured.save)
        state = {"network": self.network.state_dict(), "average": self.average.state_dict(),
                 "optimiser": self.optimiser.state_dict(), "step": self.step,
                 "seconds": self.seconds, "history": self.history}
        replace(folder / CHECKPOINT, lambda path: torch.save(state, path))
        replace(folder / "log.jsonl", lambda path: path.write_text(
            "".join(json.dumps(entry) + "\n" for entry in self.history)))
        replace(folder / "curves.png", lambda path: plots.loss_curves(self.history, path))

    def restore(self, folder):
        """Goes on from the folder's checkpoint. Raises ValueError if that is damaged."""
        path = folder / CHECKPOINT
        try:
            # Not onto the device: the optimiser moves what belongs there, but not its step count.
            state = torch.load(path, map_location="cpu")
            self.network.load_state_dict(state["network"])
            self.average.load_state_dict(state["average"])
            self.optimiser.load_state_dict(state["optimiser"])
            self.step, self.history = state["step"], state["history"]
            self.seconds = self.seconds_before = state["seconds"]
            self.progress = self.share().item()
        except Exception as error:  # what a damaged file raises depends on where it is damaged
            raise ValueError(
                f"{path}: damaged, or of another network ({type(error).__name__})") from None


def replace(path, write):
    """Has a file written beside `path` and puts it in its place."""
    new = path.with_name("new-" + path.name)
    write(new)
    new.replace(path)
