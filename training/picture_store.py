"""All pictures of a set, decoded, with their boxes, as tensors on one device.

A picture lies at the top left of a square of `STORE_SIDE` pixels and again at half and at a quarter
of its size: who wants it small takes a small one, as a camera would, and saves time.
"""

import concurrent.futures

import cv2
import numpy
import torch

from training import faces
from training.assignment import DOUBTFUL, FACE, NOTHING

STORE_SIDE = 400
LEVELS = 3
MOST_BOXES = 64  # of one picture; the largest are kept
PORTRAIT_SHARE = 0.1  # a picture whose only face covers more than this is a portrait
PORTRAIT_WEIGHT = 0.35
EMPTY_SHARE = 0.2  # of the pictures that are drawn


def fitted(image, boxes):
    """The picture, shrunk if it doesn't fit the store, and its boxes."""
    ratio = STORE_SIDE / max(image.shape[:2])
    if ratio < 1:
        height, width = (max(1, round(side * ratio)) for side in image.shape[:2])
        boxes = boxes * numpy.array([width / image.shape[1], height / image.shape[0]] * 2,
                                    numpy.float32)
        image = cv2.resize(image, (width, height), interpolation=cv2.INTER_AREA)
    return image, boxes


def halved(image):
    height, width = (max(1, side // 2) for side in image.shape[:2])
    return cv2.resize(image, (width, height), interpolation=cv2.INTER_AREA)


class PictureStore:
    """Tensors, one row a picture.

    pixels   list of LEVELS tensors n x 3 x s x s bytes, planes R, G, B, s halved at each level
    sizes    n x 2: width and height of the picture in its square
    boxes    n x MOST_BOXES x 4: x1 y1 x2 y2 in pixels of the first level
    kinds    n x MOST_BOXES: as in `assignment`
    weights  n: how often a picture shall be drawn
    """

    def __init__(self, folder):
        pictures = faces.load(folder)
        count = len(pictures)
        if count == 0:
            raise ValueError(f"{folder}: holds no pictures")
        self.pixels = [torch.zeros(count, 3, STORE_SIDE >> level, STORE_SIDE >> level,
                                   dtype=torch.uint8) for level in range(LEVELS)]
        self.sizes = torch.zeros(count, 2)
        self.boxes = torch.zeros(count, MOST_BOXES, 4)
        self.kinds = torch.zeros(count, MOST_BOXES, dtype=torch.long)
        with concurrent.futures.ThreadPoolExecutor() as pool:
            for _ in pool.map(self.put, range(count), pictures):
                pass
        self.weights = self.balance()

    def put(self, row, picture):
        image, boxes = fitted(faces.readImage(picture), picture.boxes)
        self.sizes[row] = torch.tensor([image.shape[1], image.shape[0]])
        largest = numpy.argsort(-boxes[:, 2] * boxes[:, 3], kind="stable")[:MOST_BOXES]
        corners = torch.from_numpy(boxes[largest])
        self.boxes[row, :len(corners)] = torch.cat(
            [corners[:, :2], corners[:, :2] + corners[:, 2:]], 1)
        self.kinds[row, :len(corners)] = torch.from_numpy(
            numpy.where(picture.doubtful[largest], DOUBTFUL, FACE))
        for level in range(LEVELS):
            planes = torch.from_numpy(numpy.ascontiguousarray(image[:, :, ::-1].transpose(2, 0, 1)))
            self.pixels[level][row, :, :planes.shape[1], :planes.shape[2]] = planes
            image = halved(image)

    def balance(self):
        """Fewer portraits than there are, and a fixed share of pictures without faces."""
        isFace = self.kinds == FACE
        area = (self.boxes[..., 2:] - self.boxes[..., :2]).prod(2)
        largest = (area * isFace).amax(1) / self.sizes.prod(1)
        weights = torch.ones(len(self.sizes))
        weights[(isFace.sum(1) == 1) & (largest > PORTRAIT_SHARE)] = PORTRAIT_WEIGHT
        empty = (self.kinds == NOTHING).all(1)
        if empty.any() and not empty.all():
            weights[empty] *= EMPTY_SHARE / (1 - EMPTY_SHARE) * weights[~empty].sum() / empty.sum()
        return weights

    def empty(self):
        """The rows of pictures in which nothing is a face, not even perhaps."""
        return (self.kinds == NOTHING).all(1).nonzero()[:, 0]

    def largeFaces(self, side):
        """Row and box of each face whose sides' mean is at least `side` pixels: n x 2."""
        area = (self.boxes[..., 2:] - self.boxes[..., :2]).prod(2)
        return ((self.kinds == FACE) & (area >= side * side)).nonzero()

    def to(self, device):
        """Moves everything to the device."""
        self.pixels = [level.to(device) for level in self.pixels]
        for name in ("sizes", "boxes", "kinds", "weights"):
            setattr(self, name, getattr(self, name).to(device))
        return self
