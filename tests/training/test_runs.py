"""Training as a user runs it: stopped and resumed, and with what it can't work with."""

import signal
import subprocess
import sys
import unittest
from unittest import mock

import numpy
import torch

import synthetic
from training import train, trainer
from training.network import FaceNetwork


class Runs(unittest.TestCase):
    def setUp(self):
        self.folder = synthetic.new_folder()
        self.set = synthetic.write(self.folder / "set", synthetic.squares(5, 12))
        measured = mock.patch.object(trainer, "MEASURED_BATCHES", 2)
        measured.start()
        self.addCleanup(measured.stop)
        for number in (signal.SIGINT, signal.SIGTERM):  # a run of one process sets its own
            self.addCleanup(signal.signal, number, signal.getsignal(number))

    def start(self, name, *options):
        """The exit status and the error output."""
        data = () if "--resume" in options else ("--data", self.set)
        return synthetic.call(train.main, *data, "--run", self.folder / name, *options)[::2]

    def finish(self, name, *options):
        self.assertEqual(self.start(name, *options), (0, ""))
        return torch.load(self.folder / name / trainer.CHECKPOINT)

    def test_a_python_without_the_packages_is_told_so_in_one_line(self):
        bare = subprocess.run([sys.executable, "-S", "-m", "training.train"], check=False,
                              stderr=subprocess.PIPE, text=True)
        self.assertEqual(bare.returncode, 2)
        self.assertRegex(bare.stderr, r"\Atraining: .* has no .*torch.*\n\Z")

    def test_a_resumed_run_goes_on_as_if_nothing_had_happened(self):
        fresh = ("--batch", 4, "--processes", 1, "--samples", 60)
        start = self.folder / "weights.bin"
        FaceNetwork().save(start)
        for options in (("--start", start, "--source-weight", "picture0.png=0"),
                        ("--start", start, "--folded", "--bfloat16", "--natural", 1,
                         "--steady", 1)):
            name = str(len(options))
            whole = self.finish("whole" + name, *fresh, *options)
            with mock.patch.object(train, "agreed", lambda *_: True):  # stopped at the first chance
                self.assertEqual(self.finish("halves" + name, *fresh, *options)["step"], 10)
            resumed = self.finish("halves" + name, "--resume")
            self.assertEqual((whole["step"], resumed["step"]), (15, 15))
            self.assertEqual(len(resumed["history"]), 1)
            for key, value in whole["average"].items():
                self.assertTrue(torch.equal(value, resumed["average"][key]), (options, key))

    def test_an_interrupted_run_of_two_processes_keeps_what_it_has(self):
        folder = self.folder / "run"
        command = [sys.executable, "-B", "-m", "training.train", "--data", self.set, "--run",
                   folder, "--batch", "2", "--processes", "2"]
        with subprocess.Popen(command, start_new_session=True, stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, text=True) as run:
            self.assertIn("12 pictures", run.stdout.readline())
            run.terminate()  # the parent alone: it has to tell the others
            _, errors = run.communicate()
        self.assertEqual((run.returncode, errors), (0, ""))
        self.assertGreater(torch.load(folder / trainer.CHECKPOINT)["step"], 0)

    def test_sets_at_their_limits(self):
        face = [(2, 2, 40, 40)]
        noise = numpy.random.default_rng(1).integers(0, 255, (90, 90, 3)).astype(numpy.uint8)
        for name, pictures in {"no faces": [(noise, [], [])], "all doubtful": [(noise, face, [1])],
                               "no empty picture": [(noise, face, [0])],
                               "over the edge": [(noise, [(-20, 60, 50, 50)], [0])],
                               "tiny": [(noise[:1, :1], [(0, 0, 1, 1)], [0]),
                                        (noise[:1], [(0, 0, 90, 1)], [0])],
                               "crowd": [(noise, face * 200, [0] * 200)]}.items():
            self.set = synthetic.write(self.folder / name, pictures)
            self.finish(name, "--samples", 4, "--batch", 4, "--processes", 1)

    def test_faults_are_told_before_anything_is_done(self):
        run = ("--batch", 4, "--processes", 1, "--samples", 8)
        for name in ("whole", "damaged"):
            self.finish(name, *run)
        checkpoint = self.folder / "damaged" / trainer.CHECKPOINT
        checkpoint.write_bytes(checkpoint.read_bytes()[:1000])
        for name, options, cause in (
                ("new", ("--hours", "0"), "--hours"), ("new", ("--samples", "nan"), "--samples"),
                ("new", ("--samples", "inf"), "--samples"), ("new", ("--seed", 1 << 31), "--seed"),
                ("new", ("--batch", 10 ** 400), "at most 4096"),
                ("new", ("--source-weight", "a=-1"), "NAME=WEIGHT"),
                ("new", ("--device", "abacus"), "abacus"), ("new", ("--folded",), "--start"),
                ("new", ("--start", "/nowhere.bin"), "/nowhere.bin"),
                ("new", ("--start", self.set / "boxes.txt"), "391296"),
                ("new", ("--resume",), "no run to resume"), ("whole", run, "a run already"),
                ("whole", ("--resume", "--batch", 8), "--batch 4"),
                ("whole", ("--resume", "--folded", "--start", "x"), "--folded False"),
                ("damaged", ("--resume",), "damaged"), ("set/boxes.txt", run, "boxes.txt")):
            status, errors = self.start(name, *options)
            self.assertEqual(status, 2, (name, options))
            self.assertIn(cause, errors.splitlines()[-1])

    def test_an_endless_loss_is_not_saved(self):
        self.finish("run", "--batch", 4, "--processes", 1, "--samples", 8)
        with mock.patch.object(trainer.Trainer, "rate", lambda _: float("nan")):
            self.assertIn("lower --rate", self.start("run", "--resume", "--samples", 40)[0])
        self.assertEqual(torch.load(self.folder / "run" / trainer.CHECKPOINT)["step"], 2)
