"""All pictures of one or several sets, decoded, with their boxes, as tensors on one device.

Each is there at full, half and quarter size: who wants it small takes a small one, as a camera
would, and saves time.
"""

import concurrent.futures
import itertools

import cv2
import numpy
import torch

from training import faces
from training.assignment import DOUBTFUL, FACE, NOTHING

LONGEST_SIDE = 400
LEVELS = 3
MOST_BOXES = 64  # of one picture; the largest are kept
PORTRAIT_SHARE = 0.1  # a picture whose only face covers more than this is a portrait
PORTRAIT_WEIGHT = 0.35
TURNED_WEIGHT = 3.0  # of profiles and half profiles
DARK_WEIGHT, DARKEST = 2.0, 70  # of pictures whose mean is below this
USUAL_SHAPE = 0.79  # width to height of a face's box
SQUEEZED = 1.2  # faces of a square picture that differ more from the usual shape tell that it is


def fitted(image, boxes):
    """The picture, shrunk if it is too large for the store, and its boxes."""
    ratio = LONGEST_SIDE / max(image.shape[:2])
    if ratio < 1:
        height, width = (max(1, round(side * ratio)) for side in image.shape[:2])
        boxes = boxes * numpy.array([width / image.shape[1], height / image.shape[0]] * 2,
                                    numpy.float32)
        image = cv2.resize(image, (width, height), interpolation=cv2.INTER_AREA)
    return image, boxes


def halved(image):
    height, width = (max(1, side // 2) for side in image.shape[:2])
    return cv2.resize(image, (width, height), interpolation=cv2.INTER_AREA)


def natural_width(image, boxes):
    """By how much the picture has to be widened to show faces in their natural shape.

    Many sets store pictures squeezed to squares. The shape of the faces tells what they were.
    """
    if image.shape[0] != image.shape[1] or len(boxes) == 0:
        return 1.0
    factor = USUAL_SHAPE / float(numpy.median(boxes[:, 2] / boxes[:, 3]))
    if 1 / SQUEEZED < factor < SQUEEZED:
        return 1.0
    return min(max(factor, 9 / 16), 16 / 9)


class PictureStore:
    """Tensors, one row a picture.

    pixels   for each picture LEVELS tensors 3 x height x width, bytes, planes R, G, B
    sizes    n x 2: width and height of the picture
    widths   n: by how much it is to be widened to be of natural shape
    boxes    n x MOST_BOXES x 4: x1 y1 x2 y2 in pixels of the first level
    kinds    n x MOST_BOXES: as in `assignment`
    weights  n: how often a picture shall be drawn
    lures    n x MOST_BOXES: whether the box is a lure, whose kind is NOTHING
    faces    m x 2: row and box of every face and lure; face_weights m: how often it shall be drawn
    """

    def __init__(self, folders, source_weights=None):
        pictures = list(itertools.chain(*map(faces.load, folders)))
        count = len(pictures)
        if count == 0:
            raise ValueError(f"{', '.join(map(str, folders))}: no pictures")
        self.pixels = [None] * count
        self.sizes, self.widths = torch.zeros(count, 2), torch.ones(count)
        self.boxes = torch.zeros(count, MOST_BOXES, 4)
        self.kinds = torch.zeros(count, MOST_BOXES, dtype=torch.long)
        self.poses = torch.zeros(count, MOST_BOXES, dtype=torch.long)
        self.lures = torch.zeros(count, MOST_BOXES, dtype=torch.bool)
        self.is_dark = torch.zeros(count, dtype=torch.bool)
        with concurrent.futures.ThreadPoolExecutor() as pool:
            for _ in pool.map(self.put, range(count), pictures):
                pass
        weights = source_weights or {}
        self.balance(torch.tensor([weights.get(picture.name.split("_")[0], 1.0)
                                   for picture in pictures]))

    def put(self, row, picture):
        both = numpy.concatenate([picture.boxes, picture.lures])
        image, both = fitted(faces.read_image(picture), both)
        boxes, lures = numpy.split(both, [len(picture.boxes)])
        self.sizes[row] = torch.tensor([image.shape[1], image.shape[0]])
        self.widths[row] = natural_width(image, boxes[~picture.doubtful])
        self.is_dark[row] = bool(image.mean() < DARKEST)
        largest = numpy.argsort(-boxes[:, 2] * boxes[:, 3], kind="stable")[:MOST_BOXES]
        count = len(largest)
        corners = torch.from_numpy(numpy.concatenate([boxes[largest], lures])[:MOST_BOXES])
        self.boxes[row, :len(corners)] = torch.cat(
            [corners[:, :2], corners[:, :2] + corners[:, 2:]], 1)
        self.kinds[row, :count] = torch.from_numpy(
            numpy.where(picture.doubtful[largest], DOUBTFUL, FACE))
        self.poses[row, :count] = torch.from_numpy(picture.poses[largest])
        self.lures[row, count:len(corners)] = True
        levels = []
        for _ in range(LEVELS):
            planes = numpy.ascontiguousarray(image[:, :, ::-1].transpose(2, 0, 1))
            levels.append(torch.from_numpy(planes))
            image = halved(image)
        self.pixels[row] = levels

    def balance(self, weights):
        """Settles how often pictures and faces are drawn.

        Fewer portraits than there are; more of what is dark or turned. A face in a crowd counts
        less than one that stands alone.
        """
        is_face = self.kinds == FACE
        area = (self.boxes[..., 2:] - self.boxes[..., :2]).prod(2)
        largest = (area * is_face).amax(1) / self.sizes.prod(1)
        count = is_face.sum(1)
        weights[(count == 1) & (largest > PORTRAIT_SHARE)] *= PORTRAIT_WEIGHT
        weights[self.is_dark & (count > 0)] *= DARK_WEIGHT
        self.weights = weights
        if not weights.any():
            raise ValueError("no picture is ever drawn: all their sources' weights are 0")
        wanted = is_face | self.lures
        count = wanted.sum(1)
        self.faces = (wanted & (weights > 0)[:, None]).nonzero()
        row, box = self.faces.unbind(1)
        turned = self.poses[row, box] >= faces.HALF_PROFILE
        self.face_weights = (weights[row] / count[row].sqrt() *
                             torch.where(turned, TURNED_WEIGHT, 1.0))

    def empty(self):
        """The rows of pictures in which nothing is a face, not even perhaps."""
        return (self.kinds == NOTHING).all(1).nonzero()[:, 0]

    def large_faces(self, side):
        """Row and box of each face whose sides' mean is at least `side` pixels: n x 2."""
        area = (self.boxes[..., 2:] - self.boxes[..., :2]).prod(2)
        return ((self.kinds == FACE) & (area >= side * side)).nonzero()

    def to(self, device):
        """Moves everything to the device."""
        self.pixels = [[level.to(device) for level in levels] for levels in self.pixels]
        for name in ("sizes", "widths", "boxes", "kinds", "weights", "faces", "face_weights"):
            setattr(self, name, getattr(self, name).to(device))
        return self
