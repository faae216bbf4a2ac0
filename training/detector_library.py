"""The detector's own code, called from Python (native/detector_library.h).

    picture --convert--> Frame --Detector.detect--> boxes and scores of the real module
                           |--prepare_input--> bytes --Detector.run_network--> scores and offsets

The library is the CMake target `tavro_training`, looked for in the build trees of the repository;
the environment variable TAVRO_TRAINING_LIBRARY names another one.
"""

import contextlib
import ctypes
import os
import pathlib
import subprocess
import sys

import numpy

from training import weight_block
from training.contract import MOST_REPORTED, PRIOR_COUNT, SIDE, THRESHOLD, WEIGHT_BYTES

ROOT = pathlib.Path(__file__).resolve().parent.parent
FILE_NAME = "libtavro_training.so"
HOW_TO_BUILD = "cmake --preset release && cmake --build --preset release --target tavro_training"

# For trials of other weights. Lies deeper than the other trees, where `find` doesn't look.
TRIAL_TREE = ROOT / "build" / "training" / "trial"
SQUARE_TREE = ROOT / "build" / "training" / "square"

_bytes = ctypes.POINTER(ctypes.c_uint8)
_floats = ctypes.POINTER(ctypes.c_float)
_ints = ctypes.POINTER(ctypes.c_int32)


class NotBuilt(Exception):
    """The library isn't there or can't be built; the message says what to do."""


class _Frame(ctypes.Structure):
    _fields_ = [("y", _bytes), ("u", _bytes), ("v", _bytes), ("width", ctypes.c_int32),
                ("height", ctypes.c_int32)]


class Frame:
    """One I420 frame: luma height x width and two chroma planes of half that, rounded up, bytes."""

    def __init__(self, y, u, v):
        self.y, self.u, self.v = (numpy.ascontiguousarray(plane, numpy.uint8)
                                  for plane in (y, u, v))
        chroma = tuple((side + 1) // 2 for side in self.y.shape)
        if self.y.ndim != 2 or self.u.shape != chroma or self.v.shape != chroma:
            raise ValueError("the planes' sizes don't fit each other")

    @property
    def size(self):
        """Width and height."""
        return self.y.shape[1], self.y.shape[0]

    def described(self):
        return _Frame(*(plane.ctypes.data_as(_bytes) for plane in (self.y, self.u, self.v)),
                      *self.size)


def find():
    """The library's path: the newest one of all build trees."""
    named = os.environ.get("TAVRO_TRAINING_LIBRARY")
    if named:
        if not pathlib.Path(named).is_file():
            raise NotBuilt(f"TAVRO_TRAINING_LIBRARY: there is no file {named}")
        return pathlib.Path(named)
    # A sanitized library can't be loaded into a plain interpreter.
    found = [path for path in ROOT.glob(f"build/*/training/{FILE_NAME}")
             if path.parts[-3] != "asan"]
    if not found:
        raise NotBuilt(f"the detector's library isn't built. In {ROOT}: {HOW_TO_BUILD}")
    return max(found, key=lambda path: path.stat().st_mtime)


def build(weights, tree=TRIAL_TREE):
    """Builds the library with another weight block in a tree of its own; returns its path.

    The first time takes minutes, after that only the weights are put in anew.
    """
    weights = pathlib.Path(weights).resolve()
    weight_block.content(weights)  # refuses what can't be built in
    print(f"building the detector with {weights}", file=sys.stderr)
    for command in (["cmake", "-S", ROOT, "-B", tree, "-G", "Ninja", "-DTAVRO_BUILD_HOST=OFF",
                     "-DTAVRO_BUILD_TESTS=OFF", f"-DTAVRO_WEIGHTS={weights}"],
                    ["cmake", "--build", tree, "--target", "tavro_training"]):
        done = subprocess.run([str(part) for part in command], capture_output=True, text=True,
                              check=False)
        if done.returncode != 0:
            lines = (done.stderr or done.stdout).strip().splitlines()
            raise NotBuilt(f"{' '.join(map(str, command[:3]))} failed: {' '.join(lines[-3:])}")
    return pathlib.Path(tree) / "training" / FILE_NAME


class Library:
    """The functions of one loaded library."""

    def __init__(self, path=None):
        self.path = pathlib.Path(path or find()).resolve()
        try:
            self.functions = ctypes.CDLL(str(self.path))
            self.functions.tavroCreateDetector.restype = ctypes.c_void_p
            self.functions.tavroWeights.restype = _bytes
        except (AttributeError, OSError) as error:
            raise NotBuilt(f"{self.path}: can't be used: {error}") from None

    def weights(self):
        """The weight block that is built in."""
        return ctypes.string_at(self.functions.tavroWeights(), WEIGHT_BYTES)

    def convert(self, image):
        """Height x width x 3 bytes B, G, R -> frame, by the project's own BT.601 conversion."""
        image = numpy.ascontiguousarray(image, numpy.uint8)
        height, width = image.shape[:2]
        chroma = (height + 1) // 2, (width + 1) // 2
        frame = Frame(numpy.empty((height, width), numpy.uint8),
                      *(numpy.empty(chroma, numpy.uint8) for _ in range(2)))
        described = frame.described()
        self._check(self.functions.tavroConvertPicture(
            image.ctypes.data_as(_bytes), width * 3, ctypes.byref(described)),
            f"the conversion of {width}x{height} pixels is")
        return frame

    def prepare_input(self, frame):
        """Frame -> 192 x 192 x 3 bytes B, G, R."""
        picture = numpy.empty((SIDE, SIDE, 3), numpy.uint8)
        described = frame.described()
        self._check(self.functions.tavroPrepareInput(
            ctypes.byref(described), picture.ctypes.data_as(_bytes)), "the scaling is")
        return picture

    def plan_windows(self, size, smallest_face, most_windows):
        """The windows through which a host looks at a frame: x, y, width, height of each."""
        windows = numpy.empty((most_windows, 4), numpy.int32)
        count = self.functions.tavroPlanWindows(
            *map(ctypes.c_int32, (*size, smallest_face, most_windows)),
            windows.ctypes.data_as(_ints), ctypes.c_int32(most_windows))
        self._check(count, "the plan is")
        return windows[:count]

    def group_boxes(self, size, windows, boxes, window_of):
        """Of each box, the index of the one that shows the same face best, as hosts see it."""
        boxes = numpy.pad(numpy.asarray(boxes, numpy.float32), ((0, 0), (0, 1)))
        windows, window_of = (numpy.ascontiguousarray(values, numpy.int32)
                              for values in (windows, window_of))
        best = numpy.empty(len(boxes), numpy.int32)
        self._check(self.functions.tavroGroupBoxes(
            *map(ctypes.c_int32, size), windows.ctypes.data_as(_ints),
            ctypes.c_int32(len(windows)), boxes.ctypes.data_as(_floats),
            window_of.ctypes.data_as(_ints), ctypes.c_int32(len(boxes)),
            best.ctypes.data_as(_ints)), "the grouping is")
        return best

    @staticmethod
    def _check(status, what):
        if status < 0:
            raise ValueError(f"{what} refused")


@contextlib.contextmanager
def _silence():
    """Keeps what native code prints off the standard output."""
    flush = ctypes.CDLL(None).fflush
    sys.stdout.flush()
    flush(None)
    kept = os.dup(1)
    nowhere = os.open(os.devnull, os.O_WRONLY)
    os.dup2(nowhere, 1)
    os.close(nowhere)
    try:
        yield
    finally:
        flush(None)
        os.dup2(kept, 1)
        os.close(kept)


class Detector:
    """One network. Nothing is kept from call to call."""

    def __init__(self, library):
        self.library = library
        self._boxes = numpy.empty((PRIOR_COUNT, 5), numpy.float32)
        with _silence():  # the network tells that it is loaded and how long its first run took
            self.handle = library.functions.tavroCreateDetector()
            if not self.handle:
                raise NotBuilt("this processor can't run the network")
            self.run_network(numpy.zeros((SIDE, SIDE, 3), numpy.uint8))

    def __del__(self):
        if getattr(self, "handle", None):
            self.library.functions.tavroReleaseDetector(ctypes.c_void_p(self.handle))

    def run_network(self, picture):
        """192 x 192 x 3 bytes -> scores 2088 x 2 (no face, face) and offsets 2088 x 4."""
        picture = numpy.ascontiguousarray(picture, numpy.uint8)
        if picture.shape != (SIDE, SIDE, 3):
            raise ValueError("the network's picture is 192 x 192 x 3")
        scores = numpy.empty((PRIOR_COUNT, 2), numpy.float32)
        offsets = numpy.empty((PRIOR_COUNT, 4), numpy.float32)
        Library._check(self.library.functions.tavroRunNetwork(
            ctypes.c_void_p(self.handle), picture.ctypes.data_as(_bytes),
            scores.ctypes.data_as(_floats), offsets.ctypes.data_as(_floats)),
            "the network's run is")
        return scores, offsets

    def detect(self, frame, threshold=THRESHOLD, keep_limit=MOST_REPORTED - 1):
        """Boxes n x 4, x1 y1 x2 y2 in pixels of the frame, and their scores, best first.

        The box that exceeds `keep_limit` is the last one.
        """
        described = frame.described()
        count = self.library.functions.tavroDetect(
            ctypes.c_void_p(self.handle), ctypes.byref(described), ctypes.c_float(threshold),
            ctypes.c_int32(keep_limit), self._boxes.ctypes.data_as(_floats),
            ctypes.c_int32(PRIOR_COUNT))
        Library._check(count, "the detection is")
        return self._boxes[:count, :4].copy(), self._boxes[:count, 4].copy()
