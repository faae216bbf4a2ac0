"""Pictures with face boxes, from any folder in the text form of WIDER FACE.

The folder holds `images/` and a box list: for each picture its name, the count of its boxes and a
line for each, `x y w h` and flags. The list is `boxes.txt`, with one flag (1: doubtful, neither
face nor background), or the set's own `wider_face_*_bbx_gt.txt`, whose six flags are blur,
expression, illumination, invalid, occlusion, pose: there `invalid` and the heaviest blur or
occlusion make a face doubtful.
"""

import collections
import hashlib
import pathlib

import cv2
import numpy

Picture = collections.namedtuple("Picture", "name path boxes doubtful")
Picture.__doc__ = """One picture: boxes n x 4 float32, x y w h in its pixels; doubtful n bool."""


def boxList(folder):
    """The path of the folder's box list."""
    folder = pathlib.Path(folder)
    found = [path for path in [folder / "boxes.txt", *sorted(folder.glob("*_bbx_gt.txt"))]
             if path.is_file()]
    if not found or not (folder / "images").is_dir():
        raise FileNotFoundError(f"{folder}: holds no box list (boxes.txt) with images/ beside it")
    return found[0]


def isDoubtful(flags):
    if len(flags) < 6:
        return bool(flags) and flags[0] != 0
    blur, _, _, invalid, occlusion, _ = flags[:6]
    return invalid != 0 or blur == 2 or occlusion == 2


def load(folder):
    """All pictures of the folder, in the order of the list."""
    path = boxList(folder)
    pictures, at = [], 0
    try:
        lines = [line.strip() for line in path.read_text(encoding="utf-8").splitlines()]
        lines = [line for line in lines if line]
        while at < len(lines):
            name, count = lines[at], int(lines[at + 1])
            rows = [[float(value) for value in line.split()]
                    for line in lines[at + 2:at + 2 + count]]
            if len(rows) != count or not all(
                    len(row) >= 4 and numpy.isfinite(row).all() for row in rows):
                raise ValueError
            at += 2 + count
            # WIDER FACE lists an empty picture as one box without a size.
            if count == 0 and at < len(lines) and set(lines[at].split()) == {"0"}:
                at += 1
            rows = [row for row in rows if row[2] > 0 and row[3] > 0]
            pictures.append(Picture(
                name, pathlib.Path(folder) / "images" / name,
                numpy.array([row[:4] for row in rows], numpy.float32).reshape(-1, 4),
                numpy.array([isDoubtful(row[4:]) for row in rows], bool)))
    except (ValueError, IndexError):
        raise ValueError(f"{path}: not a box list near line {at + 1}") from None
    return pictures


def readImage(picture):
    """Height x width x 3 bytes: B, G, R. The picture's boxes must lie in it, in part at least."""
    data = numpy.fromfile(picture.path, numpy.uint8)
    try:
        image = cv2.imdecode(data, cv2.IMREAD_COLOR) if len(data) else None
    except cv2.error:  # too large
        image = None
    if image is None:
        raise ValueError(f"{picture.path}: not a picture")
    low, high = picture.boxes[:, :2], picture.boxes[:, :2] + picture.boxes[:, 2:]
    if (high <= 0).any() or (low >= image.shape[1::-1]).any():
        raise ValueError(f"{picture.path}: a box lies outside the picture")
    return image


def digest(folder):
    """What the data are: SHA-256 over the box list and the names and sizes of the pictures."""
    total = hashlib.sha256(boxList(folder).read_bytes())
    for picture in load(folder):
        total.update(f"{picture.name} {picture.path.stat().st_size}\n".encode())
    return total.hexdigest()
