"""What the tests of the applications share: a program is run as a user runs it, on frames whose
samples the test knows, with detectors that answer with what they were given.

    TEST.py PROGRAM [--modules FILE] [CLASS[.TEST]...]

PROGRAM may be a list with semicolons, such as an emulator and what it runs. FILE is one of the fake
modules, beside which the others lie.
"""

import json
import os
import pathlib
import random
import re
import subprocess
import sys
import tempfile
import unittest

PROGRAM = sys.argv[1].split(";") if len(sys.argv) > 1 else []
NAME = re.sub(r"(-plain)?(\.exe)?$", "", pathlib.Path(PROGRAM[-1]).name) if PROGRAM else ""
MODULES = sys.argv[3] if sys.argv[2:3] == ["--modules"] else ""
SEED = int(os.environ.get("TAVRO_TEST_SEED", "20261122"))
PLANES = range(3)


def main():
    print(f"Random samples with TAVRO_TEST_SEED={SEED}", file=sys.stderr)
    unittest.main(argv=sys.argv[:1] + sys.argv[4 if MODULES else 2:])


class Outcome:
    """How a run has ended."""

    def __init__(self, finished):
        self.code = finished.returncode
        self.output = finished.stdout
        self.errors = finished.stderr.decode(errors="replace").replace("\r", "")

    def results(self):
        """The lines of the standard output, each parsed."""
        return [json.loads(line) for line in self.output.splitlines()]


class ApplicationTest(unittest.TestCase):
    """A test with a folder of its own, in which the program runs."""

    maxDiff = 2000

    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="tavro-fd-")
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.random = random.Random(SEED)

    def path(self, name):
        return str(self.folder / name)

    def file(self, name, content):
        """The path of a file with these bytes."""
        (self.folder / name).write_bytes(content)
        return self.path(name)

    def execute(self, *arguments, stdin=b"", **options):
        finished = subprocess.run([*PROGRAM, *map(str, arguments)], input=stdin, cwd=self.folder,
                                  stdout=subprocess.PIPE, stderr=subprocess.PIPE, check=False,
                                  timeout=300, **options)
        return Outcome(finished)

    def detect(self, *arguments, module="good", **options):
        """Runs tavro-fd with one of the fake modules."""
        file = MODULES.replace("fake_good", "fake_" + module)
        return self.execute(*arguments, "--module", file, **options)

    def succeed(self, count, *arguments, **options):
        """The results of a run that must succeed, and that must be so many, without the numbers of the
        faces, which no two faces of a frame share."""
        outcome = self.detect(*arguments, **options)
        self.assertEqual(outcome.code, 0, outcome.errors)
        results = outcome.results()
        self.assertEqual(len(results), count)
        for result in results:
            numbers = {face.pop("number") for face in result["faces"]}
            self.assertEqual(len(numbers), len(result["faces"]))
        return results

    def refuse(self, outcome, reason=""):
        """A refusal is exit code 2 and one line with the reason, and nothing else."""
        self.assertEqual((outcome.code, outcome.output), (2, b""), outcome.errors)
        self.assertRegex(outcome.errors, rf"\A{NAME}: .*\n\Z")
        self.assertIn(reason, outcome.errors)


class Frame:
    """A picture in 4:2:0, its planes without gaps between rows."""

    def __init__(self, width, height, planes):
        self.width, self.height, self.planes = width, height, planes

    def plane_size(self, plane):
        return ((self.width + 1) // 2, (self.height + 1) // 2) if plane else (self.width, self.height)

    def samples(self):
        return b"".join(map(bytes, self.planes))

    def luma(self, x, y):
        return self.planes[0][y * self.width + x]


def chroma_bytes(width, height):
    return (width + 1) // 2 * ((height + 1) // 2)


def noise(random_numbers, width, height):
    return from_samples(width, height, random_numbers.randbytes(
        width * height + 2 * chroma_bytes(width, height)))


def from_samples(width, height, samples):
    u = width * height
    v = u + chroma_bytes(width, height)
    return Frame(width, height, [bytearray(samples[:u]), samples[u:v], samples[v:]])


def plain(width, height, luma=128):
    chroma = bytes([128]) * chroma_bytes(width, height)
    return Frame(width, height, [bytearray([luma]) * (width * height), chroma, chroma])


def quarters(width, height, luma):
    """The luma of the top left, top right, bottom left and bottom right quarter."""
    frame = plain(width, height)
    frame.planes[0] = bytearray(luma[(2 if y >= height // 2 else 0) + (x >= width // 2)]
                                for y in range(height) for x in range(width))
    return frame


def y4m(frames, parameters="F25:1 C420jpeg"):
    """A YUV4MPEG2 stream: the simplest of the formats that carry 4:2:0 as it is."""
    head = f"YUV4MPEG2 W{frames[0].width} H{frames[0].height} {parameters}\n"
    return head.encode() + b"".join(b"FRAME\n" + frame.samples() for frame in frames)


def raw_video(size, *options):
    """The words that describe a file of raw samples."""
    return ["--input-format", "rawvideo", *(word for option in (f"video_size={size}", *options)
                                            for word in ("--input-option", option))]


def frames_of(stream):
    """The frames of such a stream."""
    head, stream = stream.split(b"\n", 1)
    width, height = (int(re.search(rb" %c(\d+)" % letter, head)[1]) for letter in b"WH")
    size = width * height + 2 * chroma_bytes(width, height)
    return [from_samples(width, height, stream[at + 6:at + 6 + size])
            for at in range(0, len(stream), 6 + size)]


def checksum(samples):
    """FNV-1a, as the fake detector has it."""
    value = 2166136261
    for sample in samples:
        value = (value ^ sample) * 16777619 & 0xFFFFFFFF
    return value >> 1


def fake_faces(frame):
    """What the fake detector finds: a rectangle for each plane and one for the quarters."""
    half_width, half_height = frame.width // 2, frame.height // 2

    def mean(left, top):
        samples = [frame.luma(left + x, top + y)
                   for y in range(half_height) for x in range(half_width)]
        return sum(samples) // len(samples) if samples else 0

    values = [(checksum(frame.planes[plane]), plane, *frame.plane_size(plane)) for plane in PLANES]
    values.append((mean(0, 0), mean(half_width, 0), mean(0, half_height),
                   mean(half_width, half_height)))
    return [dict(zip(("left", "top", "right", "bottom"), value)) for value in values]


def ffmpeg(*arguments, stdin=b""):
    """What FFmpeg's own program writes to its standard output."""
    return subprocess.run(["ffmpeg", "-nostdin" if not stdin else "-y", "-loglevel", "error", "-y",
                           *map(str, arguments)], input=stdin, stdout=subprocess.PIPE,
                          check=True).stdout


def pictures_of(path):
    """The pictures of a file, as FFmpeg's own program decodes them."""
    return frames_of(ffmpeg("-i", path, "-fps_mode", "passthrough", "-pix_fmt", "yuv420p",
                            "-f", "yuv4mpegpipe", "-"))
