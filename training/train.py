"""Trains the network and writes a weight block.

    python3 -m training.train --data PATH --run DIR
    python3 -m training.train --run DIR --resume

PATH is a folder of pictures and boxes (see faces.py). DIR receives `checkpoint.pt`, from which
--resume goes on with the options that the run was begun with, `weights.bin`, `run.json`,
`log.jsonl` and `curves.png`. On a processor one process a core trains, each on batches of its own,
and gradients are averaged; on a CUDA device one process does all and keeps the pictures there. An
interrupted run writes its checkpoint first.
"""

import argparse
import ctypes
import json
import math
import multiprocessing
import os
import pathlib
import signal
import subprocess
import sys
import tempfile
import time

import torch
from torch import distributed

from training import faces
from training.loss import Loss
from training.network import FaceNetwork
from training.picture_store import PictureStore
from training.trainer import CHECKPOINT, Batches, Trainer

CHECKPOINT_SECONDS = 300
LOG_STEPS = 100
LARGEST_BATCH = 4096
AGREE_STEPS = 10  # how often the processes ask each other whether to stop
TRIM_THRESHOLD, TOP_PAD, MMAP_MAX = -1, -2, -4  # parameters of glibc's mallopt
PADDING = 256 << 20
KEPT_OPTIONS = ("batch", "processes", "folded")  # without them a checkpoint means something else


def number(kind, low, high=math.inf):
    """A reader of numbers from `low` to `high`, both but for infinity allowed."""
    def read(text):
        value = kind(text)
        if not low <= value <= high or value == math.inf:
            limit = "" if high == math.inf else f" and at most {high}"
            raise argparse.ArgumentTypeError(f"{text} isn't at least {low}{limit}")
        return value
    read.__name__ = kind.__name__
    return read


def source_weight(text):
    """NAME=WEIGHT -> (name, weight)."""
    name, _, value = text.partition("=")
    try:
        if not name or not 0 <= float(value) < math.inf:
            raise ValueError
    except ValueError:
        raise argparse.ArgumentTypeError(f"{text} isn't NAME=WEIGHT") from None
    return name, float(value)


def device(text):
    try:
        if not text.startswith(("cpu", "cuda")):
            raise ValueError
        torch.zeros(1, device=text)
    except (AssertionError, RuntimeError, ValueError):
        raise argparse.ArgumentTypeError(f"there is no device {text} here") from None
    return text


def make_parser():
    parser = argparse.ArgumentParser(prog="training.train", description=__doc__.split("\n\n")[0])
    add = parser.add_argument
    add("--data", action="append",
        help="folder of pictures and boxes, any number of them; PATH@train leaves a sixteenth of "
        "its pictures out, which is PATH@val (with --resume: by default the run's)")
    add("--source-weight", action="append", type=source_weight, default=[], metavar="NAME=WEIGHT",
        help="how often pictures whose names begin with NAME_ are drawn (default: 1)")
    add("--run", required=True, help="folder for what comes out")
    add("--resume", action="store_true",
        help="go on from the run's checkpoint, with its options where none are given")
    add("--start", help="a weight block to start from (default: random weights)")
    add("--folded", action="store_true",
        help="train the weights of --start without batch normalisation")
    add("--samples", type=number(float, 1), default=2e6, help="samples in all (default: 2e6)")
    add("--hours", type=number(float, 1e-3),
        help="time in all, if it ends first; the learning rate falls in time for it")
    add("--batch", type=number(int, 1, LARGEST_BATCH),
        help="samples a step of each process (default: 32 on a processor, 256 on a CUDA device)")
    add("--rate", type=number(float, 1e-9), default=3e-3,
        help="the highest learning rate (default: 0.003)")
    add("--score-loss", default="focal", choices=list(Loss.score_losses), help="(default: focal)")
    add("--box-loss", default="complete", choices=Loss.box_losses, help="(default: complete)")
    add("--balance", type=number(float, 0, 1), default=0.5,
        help="0: all priors of a face count alike, 1: all faces do (default: 0.5)")
    add("--natural", type=number(float, 0, 1), default=0.5,
        help="share of the scenes that aren't stretched (default: 0.5)")
    add("--bfloat16", action="store_true",
        help="compute the network in bfloat16: faster on processors that have it")
    add("--steady", type=number(float, 0), default=0,
        help="weight of a loss that wants the same answer for a picture moved by a pixel; a step "
        "takes a sixth longer (default: 0)")
    add("--no-pastes", action="store_true",
        help="scenes as they are, without pasted faces and things")
    add("--seed", type=number(int, 0, (1 << 31) - 1), default=1,
        help="of weights and scenes (default: 1)")
    add("--device", type=device, default="cuda" if torch.cuda.is_available() else "cpu",
        help="cpu, cuda or cuda:N (default: cuda if it is there)")
    add("--processes", type=number(int, 1, 255), help="(default: one a core on a processor)")
    return parser


def read_options(arguments):
    """The options, checked, and what the run's folder tells about it so far."""
    parser = make_parser()
    options = parser.parse_args(arguments)
    before = {}
    if options.resume:
        before = read_run(pathlib.Path(options.run))
        known = {name: value for name, value in before["options"].items() if name in options}
        parser.set_defaults(**{**known, "resume": True})
        options = parser.parse_args(arguments)
        for name in KEPT_OPTIONS:
            if name in known and getattr(options, name) != known[name]:
                parser.error(f"the run was begun with --{name} {known[name]} and goes on with it")
    if not options.data:
        parser.error("--data is needed")
    on_processor = options.device.startswith("cpu")
    options.batch = options.batch or (32 if on_processor else 256)
    options.processes = options.processes or (
        len(os.sched_getaffinity(0)) if on_processor else 1)
    if options.folded and not options.start:
        parser.error("--folded needs --start")
    if options.processes > 1 and not on_processor:
        parser.error("--processes: a CUDA device takes one")
    return options, before


def read_run(folder):
    """What the last start left in run.json."""
    path = folder / "run.json"
    if not path.is_file() or not (folder / CHECKPOINT).is_file():
        raise ValueError(f"{folder}: holds no run to resume")
    try:
        run = json.loads(path.read_text())
        return {**run, "options": dict(run["options"])}
    except (KeyError, TypeError, ValueError):
        raise ValueError(f"{path}: damaged") from None


def describe_run(options, before):
    """What a reader needs to make the same weights again, of this start and those before it."""
    try:
        commit = subprocess.run(
            ["git", "describe", "--always", "--dirty", "--abbrev=40", "--exclude=*"],
            capture_output=True, text=True, cwd=pathlib.Path(__file__).parent, check=False).stdout
    except FileNotFoundError:
        commit = ""
    return {"options": vars(options), "commit": commit.strip() or "unknown",
            "data": [faces.digest(folder) for folder in options.data], "torch": torch.__version__,
            "before": before.pop("before", []) + ([before] if before else [])}


def prepare(arguments):
    """Options and pictures. Whatever can be wrong with them is found before processes start."""
    options, before = read_options(arguments)
    folder = pathlib.Path(options.run)
    if not options.resume and (folder / CHECKPOINT).exists():
        raise ValueError(f"{folder}: holds a run already; give --resume or another folder")
    if options.resume:
        Trainer(options, None).restore(folder)
    elif options.start:
        FaceNetwork().load(options.start)
    folder.mkdir(parents=True, exist_ok=True)
    store = PictureStore(options.data, dict(options.source_weight))
    (folder / "run.json").write_text(json.dumps(describe_run(options, before), indent=2) + "\n")
    return options, store


def clock(seconds):
    return f"{int(seconds) // 3600}:{int(seconds) // 60 % 60:02d}:{int(seconds) % 60:02d}"


def show_progress(trainer, losses):
    score, box = torch.stack(losses).mean(0).tolist()
    left = trainer.seconds / trainer.progress * (1 - trainer.progress)
    line = (f"{trainer.samples:>9} samples, {trainer.samples / trainer.seconds:4.0f} a second, "
            f"scores {score:.4f}, boxes {box:.4f}, left {clock(left)}")
    print(f"\r{line} " if sys.stdout.isatty() else f"{line}\n", end="", flush=True)


def agreed(stop, options):
    """Whether any process has been told to stop."""
    if options.processes == 1:
        return stop
    flag = torch.tensor([float(stop)])
    distributed.all_reduce(flag)
    return flag.item() > 0


def work(rank, store, options, meeting):
    """The training loop of one process; the first one reports and saves."""
    stopped = []
    for signal_number in (signal.SIGINT, signal.SIGTERM):
        signal.signal(signal_number, lambda *_: stopped.append(True))
    if options.processes > 1:
        torch.set_num_threads(1)
        distributed.init_process_group("gloo", init_method=f"file://{meeting}", rank=rank,
                                       world_size=options.processes)
    if options.device != "cpu":
        store.to(options.device)
    folder = pathlib.Path(options.run)
    trainer = Trainer(options, Batches(store, options, rank))
    if options.resume:
        trainer.restore(folder)
    if rank == 0:
        print(f"{len(store.sizes)} pictures; at each step {options.batch} samples in "
              f"{options.processes} process{'es' * (options.processes > 1)}", flush=True)
    losses, saved = [], time.time()
    while trainer.progress < 1:
        losses.append(torch.stack(trainer.train()))
        ended = trainer.progress >= 1
        logged = trainer.step % LOG_STEPS == 0 or ended
        asked = trainer.step % AGREE_STEPS == 0
        if rank == 0 and (logged or asked and sys.stdout.isatty()):
            show_progress(trainer, losses)
        if logged:
            trainer.log(losses)
            losses.clear()
        if asked and agreed(bool(stopped), options):
            break
        if rank == 0 and not ended and time.time() - saved > CHECKPOINT_SECONDS:
            save(trainer, folder)
            saved = time.time()
    if rank == 0:
        save(trainer, folder)
        if sys.stdout.isatty():
            print()
        print(f"{folder / 'weights.bin'}: after {trainer.samples} samples, "
              f"{clock(trainer.seconds)}", flush=True)


def save(trainer, folder):
    try:
        trainer.save(folder)
    except ValueError as error:
        sys.exit(f"training.train: {error}; begin again with a lower --rate")


def run_processes(store, options):
    """Forks the processes, so that all share the pictures; returns the exit status."""
    def pass_on(*_):
        for child in multiprocessing.active_children():
            child.terminate()

    with tempfile.TemporaryDirectory() as meeting:
        for signal_number in (signal.SIGINT, signal.SIGTERM):
            signal.signal(signal_number, pass_on)
        try:
            torch.multiprocessing.start_processes(
                work, (store, options, pathlib.Path(meeting) / "meeting"), options.processes,
                start_method="fork")
        except torch.multiprocessing.ProcessExitedException as error:
            print(f"training.train: {error}", file=sys.stderr)
            return 1
    return 0


def keep_freed_memory():
    """Takes large blocks from the heap and never shrinks it. Without glibc nothing happens.

    Each step takes and frees the same large blocks. By default each of them is mapped and unmapped
    anew, and filling the pages costs a quarter of the time on a processor.
    """
    try:
        mallopt = ctypes.CDLL(None).mallopt
    except (AttributeError, OSError, TypeError):
        return
    mallopt(MMAP_MAX, 0)
    mallopt(TRIM_THRESHOLD, 2 ** 31 - 1)
    mallopt(TOP_PAD, PADDING)


def main(arguments=None):
    keep_freed_memory()
    try:
        options, store = prepare(arguments)
    except (OSError, ValueError) as error:
        print(f"training.train: {error}", file=sys.stderr)
        return 2
    if options.processes > 1:
        return run_processes(store, options)
    work(0, store, options, None)
    return 0


if __name__ == "__main__":
    sys.exit(main())
