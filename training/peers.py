"""Other detectors on the same pictures that the network sees.

A peer is a function from the 192 x 192 x 3 bytes to boxes n x 4, x1 y1 x2 y2 in their pixels, and
scores n. OpenCV's Haar cascades (Viola and Jones, 2001; Lienhart and Maydt, 2002) come with the
Debian package opencv-data. They were made for faces of at least 20 or 24 pixels, so they get the
picture enlarged to twice its size.
"""

import functools
import pathlib

import cv2
import numpy

CASCADES = pathlib.Path("/usr/share/opencv4/haarcascades")
NAMES = ["haarcascade_frontalface_alt2", "haarcascade_frontalface_default"]
ENLARGED = 2
SCALE_STEP = 1.1
LEAST_NEIGHBOURS = 2


def haar(cascade, picture):
    """All groups of windows that came to the last stages; later stages first, then by weight."""
    grey = cv2.cvtColor(picture, cv2.COLOR_BGR2GRAY)
    grey = cv2.resize(grey, None, fx=ENLARGED, fy=ENLARGED, interpolation=cv2.INTER_LINEAR)
    found, stages, weights = cascade.detectMultiScale3(
        cv2.equalizeHist(grey), SCALE_STEP, LEAST_NEIGHBOURS, outputRejectLevels=True)
    if len(found) == 0:
        return numpy.empty((0, 4), numpy.float32), numpy.empty(0, numpy.float32)
    boxes = numpy.asarray(found, numpy.float32).reshape(-1, 4) / ENLARGED
    boxes[:, 2:] += boxes[:, :2]
    weights = numpy.asarray(weights, numpy.float32).reshape(-1)
    stages = numpy.asarray(stages, numpy.float32).reshape(-1)
    return boxes, stages + 0.5 + numpy.arctan(weights) / numpy.pi  # 0 to 1 within a stage


def load(folder=CASCADES):
    """The peers that are installed, by name."""
    peers = {}
    for name in NAMES:
        path = pathlib.Path(folder) / f"{name}.xml"
        if path.is_file():
            peers[f"OpenCV {name}"] = functools.partial(haar, cv2.CascadeClassifier(str(path)))
    if not peers:
        raise FileNotFoundError(f"{folder}: holds no Haar cascades (Debian package opencv-data)")
    return peers
