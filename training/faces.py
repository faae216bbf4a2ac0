"""Pictures with face boxes, from any folder in the text form of WIDER FACE.

The folder holds `images/` and a box list: for each picture its name, the count of its boxes and a
line for each, `x y w h` and flags. The list is `boxes.txt`, with one flag (1: doubtful, neither
face nor background; 2: a lure, background that looks like a face), or the set's own
`wider_face_*_bbx_gt.txt`, whose six flags are blur, expression, illumination, invalid, occlusion,
pose: there `invalid` and the heaviest blur or occlusion make a face doubtful.

`landmarks.txt` beside the list, if it is there, has a line `name index x1 y1 ... x5 y5 score` for
boxes whose eyes, nose and corners of the mouth are known. They tell how far a face is turned.

A folder's name may end in `@val` or `@train`: a sixteenth of its pictures, chosen by the digests of
their names, and the others. So a set without a validation set of its own gets one.
"""

import collections
import hashlib
import pathlib

import cv2
import numpy

Picture = collections.namedtuple("Picture", "name path boxes doubtful poses lures")
Picture.__doc__ = """One picture: boxes n x 4 float32, x y w h in its pixels; doubtful n bool; poses
n: UNKNOWN, FRONTAL, HALF_PROFILE or PROFILE; lures m x 4 float32, boxes of what is no face."""

UNKNOWN, FRONTAL, HALF_PROFILE, PROFILE = range(4)
HALF_TURNED, TURNED = 0.08, 0.16  # the nose's way off the middle of the eyes, in box widths
NEAREST_EYES = 0.2  # of a face that isn't a profile, in box widths
LURE = 2  # the flag
HELD_BACK = 16  # one picture of so many


def split(folder):
    """The path of a folder, and the part of it that is meant: "", "train" or "val"."""
    path, _, part = str(folder).rpartition("@")
    if path and part in ("train", "val"):
        return pathlib.Path(path), part
    return pathlib.Path(folder), ""


def is_held_back(name):
    return hashlib.sha256(name.encode()).digest()[0] % HELD_BACK == 0


def box_list(folder):
    """The path of the folder's box list."""
    folder, _ = split(folder)
    found = [path for path in [folder / "boxes.txt", *sorted(folder.glob("*_bbx_gt.txt"))]
             if path.is_file()]
    if not found or not (folder / "images").is_dir():
        raise FileNotFoundError(f"{folder}: holds no box list (boxes.txt) with images/ beside it")
    return found[0]


def is_doubtful(flags):
    if len(flags) < 6:
        return bool(flags) and flags[0] != 0
    blur, _, _, invalid, occlusion, _ = flags[:6]
    return invalid != 0 or blur == 2 or occlusion == 2


def pose(points, width):
    """How far a face is turned, from its five points and the width of its box."""
    left_eye, right_eye, nose = points[0], points[1], points[2]
    off = abs(nose[0] - (left_eye[0] + right_eye[0]) / 2) / width
    if off > TURNED or (right_eye[0] - left_eye[0]) / width < NEAREST_EYES:
        return PROFILE
    return HALF_PROFILE if off > HALF_TURNED else FRONTAL


def load_landmarks(folder):
    """Five points of each box that has them: {(name, index of the box): 5 x 2}."""
    path = split(folder)[0] / "landmarks.txt"
    if not path.is_file():
        return {}
    points = {}
    for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
        try:
            name, index, *values = line.rsplit(maxsplit=12)
            points[name, int(index)] = numpy.float32(values[:10]).reshape(5, 2)
        except ValueError:
            raise ValueError(f"{path}: no landmarks in line {number}") from None
    return points


def box_array(rows):
    return numpy.array([row[:4] for row in rows], numpy.float32).reshape(-1, 4)


def load(folder):
    """All pictures of the folder, or of the part of it, in the order of the list."""
    path, part = box_list(folder), split(folder)[1]
    landmarks = load_landmarks(folder)
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
            poses = [pose(landmarks[name, index], row[2])
                     if (name, index) in landmarks and row[2] > 0 else UNKNOWN
                     for index, row in enumerate(rows)]
            sized = [(row, value) for row, value in zip(rows, poses) if row[2] > 0 and row[3] > 0]
            lures = [row for row, _ in sized if row[4:] == [LURE]]
            found = [(row, value) for row, value in sized if row[4:] != [LURE]]
            if part and is_held_back(name) != (part == "val"):
                continue
            pictures.append(Picture(
                name, path.parent / "images" / name,
                box_array(row for row, _ in found),
                numpy.array([is_doubtful(row[4:]) for row, _ in found], bool),
                numpy.array([value for _, value in found], int), box_array(lures)))
    except (ValueError, IndexError):
        raise ValueError(f"{path}: not a box list near line {at + 1}") from None
    return pictures


def read_image(picture):
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
    path = box_list(folder)
    total = hashlib.sha256(path.read_bytes())
    for picture in load(folder):
        total.update(f"{picture.name} {picture.path.stat().st_size}\n".encode())
    return total.hexdigest()
