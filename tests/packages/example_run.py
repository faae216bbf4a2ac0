"""What the tests of the packages share: running commands, and the two ways to the rectangles of the
same short clip, by the example host and by tavro-fd.
"""

import json
import pathlib
import subprocess
import sys

WIDTH, HEIGHT, FRAMES = 160, 120, 3


def run(*command, **options):
    """The standard output of a command; its whole output and the end of the test if it fails."""
    words = [str(word) for word in command]
    done = subprocess.run(words, capture_output=True, text=True, **options)
    if done.returncode != 0:
        sys.exit(f"{' '.join(words)}: {done.returncode}\n{done.stdout}{done.stderr}")
    return done.stdout


class Clip:
    """One picture several times over, as raw samples and as a Y4M file."""

    def __init__(self, picture, folder):
        samples = pathlib.Path(picture).read_bytes()
        self.raw = pathlib.Path(folder) / "clip.yuv"
        self.raw.write_bytes(samples * FRAMES)
        self.y4m = pathlib.Path(folder) / "clip.y4m"
        self.y4m.write_bytes(b"YUV4MPEG2 W%d H%d F25:1\n" % (WIDTH, HEIGHT)
                             + (b"FRAME\n" + samples) * FRAMES)

    def by_example(self, program, module, **options):
        text = run(*program, module, self.raw, WIDTH, HEIGHT, **options)
        return _complete([line.split(":", 1)[1].strip() for line in text.splitlines()
                          if line.startswith("frame ")])

    def by_application(self, program, **options):
        corners = ("left", "top", "right", "bottom")
        text = run(*program, self.y4m, **options)
        return _complete([" ".join("(" + ", ".join(str(face[corner]) for corner in corners) + ")"
                                   for face in json.loads(line)["faces"])
                          for line in text.splitlines()])


def _complete(frames):
    if len(frames) != FRAMES or not any(frames):
        sys.exit(f"{FRAMES} frames with a face gave {frames}")
    return frames


def expect_same(first, second):
    if first != second:
        sys.exit(f"rectangles that should be the same:\n  {first}\n  {second}")


def files_in(folder):
    """Names of the files and links below a folder."""
    return sorted(str(file.relative_to(folder)) for file in pathlib.Path(folder).rglob("*")
                  if file.is_file() or file.is_symlink())


def expect_files(found, expected):
    surprises = sorted(set(found) ^ set(expected))
    if surprises:
        sys.exit("missing or unexpected: " + " ".join(surprises))
