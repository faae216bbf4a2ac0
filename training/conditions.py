"""Pictures as other cameras would deliver them, made from a set's own pictures.

A condition takes a picture and its boxes and returns both, changed: cut to another aspect,
spoiled (dark, blurred, noisy, coded), or hardly changed at all, which a steady detector shouldn't
notice. Every picture draws its noise from a seed of its own, so that results repeat.
"""

import collections

import cv2
import numpy

from training.contract import SIDE

Scene = collections.namedtuple("Scene", "image boxes doubtful")
Scene.__doc__ = """A picture height x width x 3, B G R; boxes n x 4, x1 y1 x2 y2 in its pixels."""

SEED = 20250
CUT = 0.9  # a face of which less is left is doubtful

ASPECTS = {"1:1": 1, "4:3": 4 / 3, "16:9": 16 / 9, "9:16": 9 / 16}


def random(index):
    """Each picture's own source of noise."""
    return numpy.random.default_rng((SEED, index))


def from_picture(picture, image):
    corners = picture.boxes.copy()
    corners[:, 2:] += corners[:, :2]
    return Scene(image, corners, picture.doubtful)


def window_start(centres, length, window):
    """Where along an axis a window begins that holds most of the centres, the middle if all do."""
    middle = (length - window) / 2
    # A best window can be moved until a centre touches one of its ends.
    starts = numpy.concatenate([[middle], centres, centres - window]).clip(0, length - window)
    inside = ((centres >= starts[:, None]) & (centres <= starts[:, None] + window)).sum(1)
    spread = numpy.abs(starts - middle)
    return starts[numpy.lexsort((spread, -inside))[0]]


def cropped(scene, aspect):
    """The largest window of this width to height that holds as many faces as any such window.

    Stretched to the network's square, it is what a camera of that aspect would show.
    """
    height, width = scene.image.shape[:2]
    w, h = min(width, round(height * aspect)), min(height, round(width / aspect))
    w, h = max(w, 1), max(h, 1)
    sure = scene.boxes[~scene.doubtful]
    centres = (sure[:, :2] + sure[:, 2:]) / 2
    x, y = int(window_start(centres[:, 0], width, w)), int(window_start(centres[:, 1], height, h))
    cut = (scene.boxes - [x, y, x, y]).clip(0, [w, h, w, h])
    area = (scene.boxes[:, 2:] - scene.boxes[:, :2]).prod(1)
    left = (cut[:, 2:] - cut[:, :2]).prod(1) / numpy.maximum(area, 1e-9)
    seen = left > 0
    return Scene(scene.image[y:y + h, x:x + w], cut[seen].astype(numpy.float32),
                 (scene.doubtful | (left < CUT))[seen])


def padded(image):
    """The picture at the top left of a black square: its faces keep their shape."""
    height, width = image.shape[:2]
    side = max(height, width)
    return cv2.copyMakeBorder(image, 0, side - height, 0, side - width, cv2.BORDER_CONSTANT)


def noisy(image, sigma, noise):
    grain = noise.standard_normal(image.shape, numpy.float32) * sigma
    return numpy.clip(image + grain + 0.5, 0, 255).astype(numpy.uint8)


def coded(image, quality):
    """Through JPEG and back."""
    _, data = cv2.imencode(".jpg", image, [cv2.IMWRITE_JPEG_QUALITY, quality])
    return cv2.imdecode(data, cv2.IMREAD_COLOR)


def dark(image, noise):
    """A fifth of the light, and the sensor's noise stays."""
    return noisy(image * numpy.float32(0.2), 2, noise)


def blurred(image, _):
    """Out of focus by 1.5 pixels of the network's input."""
    height, width = image.shape[:2]
    return cv2.GaussianBlur(image, (0, 0), 1.5 * width / SIDE, sigmaY=1.5 * height / SIDE,
                            borderType=cv2.BORDER_REPLICATE)


# Name -> function of the image and the picture's source of noise.
SPOILED = {
    "dark": dark,
    "blur": blurred,
    "noise": lambda image, noise: noisy(image, 15, noise),
    "JPEG 15": lambda image, _: coded(image, 15),
}


def shifted(image, _):
    """One pixel to the right; the first column stands twice."""
    return numpy.concatenate([image[:, :1], image[:, :-1]], 1)


# Name -> the same kind of function, and how many pixels it moves the faces to the right.
NUDGED = {
    "shifted by a pixel": (shifted, 1),
    "2 levels brighter": (lambda image, _: cv2.add(image, (2, 2, 2, 0)), 0),
    "noise of 2 levels": (lambda image, noise: noisy(image, 2, noise), 0),
    "JPEG 85": (lambda image, _: coded(image, 85), 0),
}
