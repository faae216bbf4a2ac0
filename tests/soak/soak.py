#!/usr/bin/python3
"""Lets the detector run for long, as a host does: frames of many sizes for one instance after another.
Looks whether the process grows or slows down, and prints the curve of both.

    soak.py MODULE PICTURE [FRAMES]      one million frames by default: about an hour

PICTURE is I420 of 160x120 pixels with one face. PYTHONPATH names the folder of the package tavrofd.
Resident memory of its own must not rise any more after the first 10,000 frames, and the fastest frame
of one fixed size must stay as fast.
"""

import pathlib
import random
import re
import sys
import time

import numpy as np

import tavrofd

SAMPLES = 100
SETTLING_FRAMES = 10_000  # or a tenth of all, if that is less
MOST_BYTES_MORE = 256 * 1024
MOST_TIME_MORE = 1.3
FRAMES_OF_LIFE = 1000
# The first is the one whose time is watched.
SIZES = [(192, 192), (160, 120), (640, 360), (641, 361), (320, 240), (96, 96), (1280, 720), (1, 1),
         (33, 700), (720, 1280), (384, 384), (100, 100)]


def frames_of(picture):
    """The picture stretched to each size, as three planes."""
    samples = np.fromfile(picture, np.uint8)
    planes = [plane.reshape(shape) for plane, shape in zip(
        np.split(samples, [160 * 120, 160 * 120 * 5 // 4]), [(120, 160), (60, 80), (60, 80)])]

    def stretched(plane, width, height):
        rows, columns = (np.arange(count) * size // count
                         for count, size in zip((height, width), plane.shape))
        return np.ascontiguousarray(plane[rows[:, None], columns])
    return [tuple(stretched(plane, *((width, height) if plane is planes[0]
                                     else ((width + 1) // 2, (height + 1) // 2)))
                  for plane in planes) for width, height in SIZES]


def resident_bytes():
    """Without the pages of files: how many of those there are is for the system to say."""
    status = pathlib.Path("/proc/self/status").read_text()
    return 1024 * int(re.search(r"^RssAnon:\s*(\d+) kB$", status, re.MULTILINE)[1])


def main(module, picture, frame_count=1_000_000):
    frames = frames_of(picture)
    draw = random.Random(1)
    memory, fastest, faces = [], [], 0
    per_sample = frame_count // SAMPLES
    print(f"{'frames':>10} {'resident kB':>12} {'fastest 192x192 ms':>22}", flush=True)
    for sample in range(SAMPLES):
        times = []
        for start in range(0, per_sample, FRAMES_OF_LIFE):
            detector = tavrofd.Detector(module)
            faces += len(detector.detect(frames[0]))  # the first frame prepares
            for _ in range(min(FRAMES_OF_LIFE, per_sample - start) - 1):
                which = draw.randrange(len(frames))
                before = time.perf_counter()
                found = detector.detect(frames[which])
                if which == 0:
                    times.append(time.perf_counter() - before)
                faces += len(found)
        memory.append(resident_bytes())
        fastest.append(min(times, default=float("inf")))
        print(f"{(sample + 1) * per_sample:10} {memory[-1] // 1024:12} {fastest[-1] * 1e3:22.3f}",
              flush=True)
    settled = min(max(SETTLING_FRAMES // per_sample, 1), SAMPLES // 10)
    more = max(memory[settled:]) - memory[settled - 1]
    first, last = min(fastest[:SAMPLES // 5]), min(fastest[-SAMPLES // 5:])
    print(f"{faces} faces; resident memory rose by {more // 1024} kB at most after "
          f"{settled * per_sample} frames; fastest frame {first * 1e3:.3f} ms in the first fifth, "
          f"{last * 1e3:.3f} in the last", flush=True)
    faults = [fault for fault, holds in (
        ("there was nothing to follow", faces == 0), ("memory grows", more > MOST_BYTES_MORE),
        ("frames take longer and longer", last > first * MOST_TIME_MORE)) if holds]
    print("".join(f"soak: {fault}\n" for fault in faults), end="", file=sys.stderr)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:3], *map(int, sys.argv[3:])) if len(sys.argv) in (3, 4)
             else (print(__doc__), 2)[1])
