"""Trains the network and writes a weight block.

    python3 -m training.train --data PATH --run DIR
    python3 -m training.train --data PATH --run DIR --resume

PATH is a folder of pictures and boxes (see faces.py). DIR receives `checkpoint.pt`, from which
--resume goes on, `weights.bin`, `log.jsonl` and `curves.png`. On a processor one process a core
trains, each on batches of its own, and gradients are averaged; on a CUDA device one process does
all and keeps the pictures there. An interrupted run writes its checkpoint first.
"""

import argparse
import copy
import json
import math
import os
import pathlib
import signal
import subprocess
import sys
import tempfile
import time

import torch
from torch import distributed

from training import camera, detector_input, faces, memory, plots
from training.loss import Loss
from training.network import SIDE, FaceNetwork, toImages
from training.picture_store import PictureStore
from training.priors import priorBoxes
from training.scenes import Random, Scenes

AVERAGE_DECAY = 0.9995  # of the averaged weights, a step
WARM_UP_STEPS = 500
LEAST_RATE = 0.005  # of the highest rate, at the end
WEIGHT_DECAY = 1e-4
LONGEST_GRADIENT = 10.0
REPLAY_BATCHES = 8  # how long a batch waits until it is seen again, mirrored
CHECKPOINT_SECONDS = 300
LOG_STEPS = 100
MEASURED_BATCHES = 60  # for the statistics of the normalisations in the weights that leave


def parseArguments(arguments=None):
    parser = argparse.ArgumentParser(
        prog="training.train", description=__doc__.split("\n\n", maxsplit=1)[0],
        formatter_class=argparse.ArgumentDefaultsHelpFormatter)
    parser.add_argument("--data", required=True, help="folder of pictures and boxes")
    parser.add_argument("--run", required=True, help="folder for what comes out")
    parser.add_argument("--resume", action="store_true", help="go on from the run's checkpoint")
    parser.add_argument("--start", help="a weight block to start from")
    parser.add_argument("--folded", action="store_true",
                        help="train what --start gives without batch normalisation")
    parser.add_argument("--samples", type=float, default=2e6, help="samples in all")
    parser.add_argument("--hours", type=float, default=math.inf,
                        help="time in all; the learning rate falls in time for it")
    parser.add_argument("--batch", type=int, default=0,
                        help="samples a step of each process; 0: 32 on a processor, 256 elsewhere")
    parser.add_argument("--rate", type=float, default=3e-3, help="the highest learning rate")
    parser.add_argument("--score-loss", default="focal", choices=list(Loss.scoreLosses))
    parser.add_argument("--box-loss", default="complete", choices=Loss.boxLosses)
    parser.add_argument("--balance", type=float, default=0.5,
                        help="0: all priors of a face count alike, 1: all faces do")
    parser.add_argument("--no-pastes", action="store_true",
                        help="scenes as they are, without pasted faces and things")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--device", default="cuda" if torch.cuda.is_available() else "cpu")
    parser.add_argument("--processes", type=int, default=0, help="0: one a core")
    options = parser.parse_args(arguments)
    if options.folded and not options.start:
        parser.error("--folded needs --start")
    if options.batch < 1:
        options.batch = 32 if options.device == "cpu" else 256
    if options.processes < 1:
        options.processes = len(os.sched_getaffinity(0)) if options.device == "cpu" else 1
    return options


class Batches:
    """An endless row of batches: bytes n x 192 x 192 x 3 as the detector sees them, boxes, kinds.

    Each is seen twice, the second time mirrored and a while later: making them costs about as much
    as learning from them (Choi and others, "Faster neural network training with data echoing").
    What comes at a step depends on the seed and the step alone.
    """

    def __init__(self, store, options, rank):
        self.scenes = Scenes(store, withPastes=not options.no_pastes)
        self.options, self.rank = options, rank
        self.waiting = {}

    def make(self, number):
        random = Random(self.options.device,
                        (self.options.seed << 40) + (number % (1 << 32) << 8) + self.rank)
        scenes, boxes, kinds = self.scenes.batch(random, self.options.batch)
        return detector_input.detectorInput(*camera.shoot(random, scenes)), boxes, kinds

    def next(self, step):
        """The batch of a step: new ones at even steps, mirrored ones at odd steps."""
        number = step // 2
        if step % 2 == 0:
            self.waiting[number] = self.make(number)
            return self.waiting[number]
        number -= REPLAY_BATCHES
        pictures, boxes, kinds = self.waiting.pop(number, None) or self.make(number)
        mirrored = torch.stack([SIDE - boxes[..., 2], boxes[..., 1],
                                SIDE - boxes[..., 0], boxes[..., 3]], -1)
        return pictures.flip(2), mirrored, kinds


class Trainer:
    """The network in training, its average, the optimiser: all that a checkpoint holds."""

    def __init__(self, options, rank, batches):
        self.options, self.rank, self.batches = options, rank, batches
        torch.manual_seed(options.seed)
        self.network = FaceNetwork().to(options.device)
        self.step, self.seconds, self.history, self.progress = 0, 0.0, [], 0.0
        self.secondsBefore, self.started = 0.0, time.time()
        if options.start:
            self.network.load(options.start)
        if options.folded:
            self.network.fold()
        elif options.start:
            pictures = torch.cat([batches.make(-1 - i)[0] for i in range(4)])
            self.network.restoreNormalisation(toImages(pictures))
        self.average = copy.deepcopy(self.network)
        decayed = [p for p in self.network.parameters() if p.dim() > 1]
        others = [p for p in self.network.parameters() if p.dim() <= 1]
        self.optimiser = torch.optim.AdamW(
            [{"params": decayed, "weight_decay": WEIGHT_DECAY},
             {"params": others, "weight_decay": 0.0}], lr=options.rate)
        self.loss = Loss(priorBoxes().to(options.device), options.score_loss, options.box_loss,
                         options.balance)

    @property
    def samplesPerStep(self):
        return self.options.batch * self.options.processes

    def rate(self):
        """Warm-up, then half a cosine (Loshchilov and Hutter, 2017)."""
        cosine = LEAST_RATE + (1 - LEAST_RATE) * (1 + math.cos(math.pi * self.progress)) / 2
        return self.options.rate * min(1.0, (self.step + 1) / WARM_UP_STEPS) * cosine

    def train(self):
        """One step; gives the two losses."""
        pictures, boxes, kinds = self.batches.next(self.step)
        self.network.train()
        for group in self.optimiser.param_groups:
            group["lr"] = self.rate()
        score, box = self.loss(*self.network(toImages(pictures)), boxes, kinds)
        self.optimiser.zero_grad(set_to_none=True)
        (score + box).backward()
        self.agree()
        torch.nn.utils.clip_grad_norm_(self.network.parameters(), LONGEST_GRADIENT)
        self.optimiser.step()
        self.step += 1
        self.seconds = self.secondsBefore + time.time() - self.started
        decay = min(AVERAGE_DECAY, (1 + self.step) / (10 + self.step))
        with torch.no_grad():
            for mean, value in zip(self.average.parameters(), self.network.parameters()):
                mean.lerp_(value, 1 - decay)
        return score.detach(), box.detach()

    def agree(self):
        """Averages over the processes the gradients and how far the run has come."""
        progress = max((self.step + 1) * self.samplesPerStep / self.options.samples,
                       self.seconds / 3600 / self.options.hours)
        gradients = [p.grad for p in self.network.parameters()]
        flat = torch.cat([gradient.flatten() for gradient in gradients])
        flat = torch.cat([flat, flat.new_tensor([progress])])
        if self.options.processes > 1:
            distributed.all_reduce(flat)
            flat /= self.options.processes
            parts = flat[:-1].split([gradient.numel() for gradient in gradients])
            for gradient, part in zip(gradients, parts):
                gradient.copy_(part.view_as(gradient))
        self.progress = min(1.0, flat[-1].item())

    def save(self, folder):
        """Checkpoint, weight block, log and curves. Files are replaced at once or not at all."""
        state = {"network": self.network.state_dict(), "average": self.average.state_dict(),
                 "optimiser": self.optimiser.state_dict(), "step": self.step,
                 "progress": self.progress, "seconds": self.seconds, "history": self.history}
        replace(folder / "checkpoint.pt", lambda path: torch.save(state, path))
        measured = copy.deepcopy(self.average)
        measured.measureNormalisation(
            toImages(self.batches.make(1 << 30 | i)[0]) for i in range(MEASURED_BATCHES))
        replace(folder / "weights.bin", measured.save)
        replace(folder / "log.jsonl", lambda path: path.write_text(
            "".join(json.dumps(entry) + "\n" for entry in self.history)))
        replace(folder / "curves.png", lambda path: plots.lossCurves(self.history, path))

    def restore(self, folder):
        state = torch.load(folder / "checkpoint.pt", map_location=self.options.device)
        self.network.load_state_dict(state["network"])
        self.average.load_state_dict(state["average"])
        self.optimiser.load_state_dict(state["optimiser"])
        self.step, self.progress, self.history = (
            state["step"], state["progress"], state["history"])
        self.seconds = self.secondsBefore = state["seconds"]


def replace(path, write):
    """Has a file written beside `path` and puts it in its place."""
    new = path.with_name("new-" + path.name)
    write(new)
    new.replace(path)


def describe(seconds):
    return f"{int(seconds) // 3600}:{int(seconds) // 60 % 60:02d}:{int(seconds) % 60:02d}"


def work(rank, store, options, meeting):
    """The training loop of one process; the first one reports and saves."""
    stopped = []
    for number in (signal.SIGINT, signal.SIGTERM):
        signal.signal(number, lambda *_: stopped.append(True))
    if options.processes > 1:
        torch.set_num_threads(1)
        distributed.init_process_group("gloo", init_method=f"file://{meeting}", rank=rank,
                                       world_size=options.processes)
    if options.device != "cpu":
        store.to(options.device)
    folder = pathlib.Path(options.run)
    trainer = Trainer(options, rank, Batches(store, options, rank))
    if options.resume:
        trainer.restore(folder)
    losses, saved = [], time.time()
    while trainer.progress < 1:
        losses.append(torch.stack(trainer.train()))
        if trainer.step % LOG_STEPS == 0:
            score, box = torch.stack(losses).mean(0).tolist()
            losses.clear()
            trainer.history.append({"samples": trainer.step * trainer.samplesPerStep,
                                    "score": round(score, 5), "box": round(box, 5),
                                    "rate": trainer.rate(), "seconds": round(trainer.seconds)})
            if rank == 0:
                report(trainer)
        if trainer.step % 10 == 0 and agreed(bool(stopped), options):
            break
        if rank == 0 and time.time() - saved > CHECKPOINT_SECONDS:
            trainer.save(folder)
            saved = time.time()
    if rank == 0:
        trainer.save(folder)
        print(f"\n{folder / 'weights.bin'}: after {trainer.step * trainer.samplesPerStep} samples, "
              f"{describe(trainer.seconds)}", flush=True)


def agreed(stop, options):
    """Whether any process has been told to stop."""
    if options.processes == 1:
        return stop
    flag = torch.tensor([float(stop)])
    distributed.all_reduce(flag)
    return flag.item() > 0


def report(trainer):
    entry = trainer.history[-1]
    left = trainer.seconds / trainer.progress * (1 - trainer.progress)
    print(f"\r{entry['samples']:>9} samples, {entry['samples'] / trainer.seconds:4.0f} a second, "
          f"scores {entry['score']:.4f}, boxes {entry['box']:.4f}, left {describe(left)} ",
          end="" if sys.stdout.isatty() else "\n", flush=True)


def describeRun(options):
    """What a reader needs to make the same weights again."""
    commit = subprocess.run(["git", "rev-parse", "HEAD"], capture_output=True, text=True,
                            cwd=pathlib.Path(__file__).parent, check=False).stdout.strip()
    return {"options": vars(options), "commit": commit, "data": faces.digest(options.data),
            "torch": torch.__version__}


def main(arguments=None):
    options = parseArguments(arguments)
    memory.keepFreedMemory()
    folder = pathlib.Path(options.run)
    try:
        folder.mkdir(parents=True, exist_ok=True)
        if options.resume and not (folder / "checkpoint.pt").is_file():
            raise FileNotFoundError(f"{folder}: holds no checkpoint to resume from")
        if not options.resume and (folder / "checkpoint.pt").exists():
            raise FileExistsError(f"{folder}: holds a run already; give --resume or another folder")
        (folder / "run.json").write_text(json.dumps(describeRun(options), indent=2) + "\n")
        store = PictureStore(options.data)
    except (OSError, ValueError) as error:
        print(f"training.train: {error}", file=sys.stderr)
        return 2
    with tempfile.TemporaryDirectory() as meeting:
        if options.processes == 1:
            work(0, store, options, None)
        else:  # forked, so that all share the pictures
            torch.multiprocessing.start_processes(
                work, (store, options, pathlib.Path(meeting) / "meeting"), options.processes,
                start_method="fork")
    return 0


if __name__ == "__main__":
    sys.exit(main())
