"""Moving scenes with known boxes, made from a set's pictures, and how steadily faces are found.

A camera looks at a picture of one face and pans, turns around its axis, or loses the light; or at
two such pictures side by side; or pans over a picture without faces. Each frame is detected on its
own: what the module's tracking adds is not in these figures.
"""

import collections

import cv2
import numpy

from training import conditions, faces, metrics

WIDTH, HEIGHT = 640, 360
FRAMES, RATE = 60, 30  # of a clip; a second
CLIPS = 8  # of each kind
FACE_HEIGHTS = 40, 150  # in pixels of the frame, one clip after the other evenly in the logarithm
SAME = 0.3  # overlap of a false box with that of the frame before, if it is the same
FURTHEST = 0.1  # of the frame's width that the camera moves to each side
MOST_TURNED = 25  # degrees to each side
DARKEST = 0.12

Clip = collections.namedtuple("Clip", "frames boxes")
Clip.__doc__ = """Frames, pictures B G R; boxes frames x faces x 4, x1 y1 x2 y2 in their pixels."""

Continuity = collections.namedtuple("Continuity", "faces recall longest_gap flicker false_tracks")
Continuity.__doc__ = """How many faces there are; the share of their frames in which they are found;
the most frames in a row in which one isn't; how often a minute a face comes back; how many false
boxes come up a minute, each counted once while it stays."""


def camera(centre, zoom, degrees, target):
    """The affine map, 2 x 3, that shows the picture's point `centre` at the frame's `target`."""
    matrix = cv2.getRotationMatrix2D(tuple(map(float, centre)), degrees, zoom)
    matrix[:, 2] += numpy.subtract(target, centre)
    return matrix


def moved(box, matrix):
    """Where an upright ellipse in the box goes, as a box."""
    middle, half = (box[:2] + box[2:]) / 2, (box[2:] - box[:2]) / 2
    extent = numpy.hypot(*(matrix[:, :2] * half).T)
    middle = matrix[:, :2] @ middle + matrix[:, 2]
    return numpy.concatenate([middle - extent, middle + extent])


def look(image, matrix, width=WIDTH, light=1.0, noise=None):
    frame = cv2.warpAffine(image, matrix, (width, HEIGHT), flags=cv2.INTER_LINEAR,
                           borderMode=cv2.BORDER_REPLICATE)
    return conditions.noisy(frame * numpy.float32(light), 2, noise) if light < 1 else frame


def way(frame):
    """From -1 to 1 and back within a clip."""
    return numpy.sin(2 * numpy.pi * frame / FRAMES)


def aimed(box, height, at, width=WIDTH, degrees=0):
    """The map that shows the box at `height` pixels, `at` x the furthest way off the middle."""
    return camera((box[:2] + box[2:]) / 2, height / (box[3] - box[1]), degrees,
                  (width / 2 + at * FURTHEST * width, HEIGHT / 2))


def single(kind, height, image, box, noise):
    """One face: the camera pans, turns or loses the light."""
    frames, boxes = [], []
    for at in map(way, range(FRAMES)):
        matrix = aimed(box, height, at if kind == "pan" else 0,
                       degrees=at * MOST_TURNED if kind == "turn" else 0)
        light = DARKEST ** abs(at) if kind == "darken" else 1
        frames.append(look(image, matrix, light=light, noise=noise))
        boxes.append([moved(box, matrix)])
    return Clip(frames, numpy.float32(boxes))


def pair(height, *people):
    """Two pictures of a face each, side by side, that move toward each other and apart."""
    frames, boxes = [], []
    for at in map(way, range(FRAMES)):
        matrices = [aimed(box, height, sign * at, WIDTH // 2)
                    for sign, (_, box) in zip((1, -1), people)]
        frames.append(numpy.hstack([look(image, matrix, WIDTH // 2)
                                    for matrix, (image, _) in zip(matrices, people)]))
        boxes.append([moved(box, matrix) + numpy.float32([start, 0] * 2) for matrix, (_, box), start
                      in zip(matrices, people, (0, WIDTH // 2))])
    return Clip(frames, numpy.float32(boxes))


def bare(image):
    """A pan over a picture in which nobody is."""
    height, width = image.shape[:2]
    zoom = 1.2 * max(WIDTH / width, HEIGHT / height)
    frames = [look(image, camera((width / 2, height / 2), zoom, 0,
                                 (WIDTH / 2 + at * FURTHEST * WIDTH, HEIGHT / 2)))
              for at in map(way, range(FRAMES))]
    return Clip(frames, numpy.zeros((FRAMES, 0, 4), numpy.float32))


def spread(items, count):
    """As many of the items, from the first to the last."""
    return [items[i * len(items) // count] for i in range(min(count, len(items)))]


def make(pictures):
    """All clips, one after the other: (kind, Clip)."""
    alone = [picture for picture in pictures if len(picture.boxes) == 1 and
             not picture.doubtful[0] and picture.boxes[0, 3] >= FACE_HEIGHTS[0]]
    empty = [picture for picture in pictures if len(picture.boxes) == 0]
    people = []
    for picture in spread(alone, CLIPS):
        scene = conditions.from_picture(picture, faces.read_image(picture))
        people.append((scene.image, scene.boxes[0]))
    heights = numpy.geomspace(*FACE_HEIGHTS, max(len(people), 1))
    for number, (height, person) in enumerate(zip(heights, people)):
        for kind in ("pan", "turn", "darken"):
            yield kind, single(kind, height, *person, conditions.random(number))
        yield "two people", pair(height, person, people[number - 1])
    for picture in spread(empty, CLIPS):
        yield "no face", bare(faces.read_image(picture))


def longest_run(flags):
    """The most trues in a row."""
    longest = run = 0
    for flag in flags:
        run = run + 1 if flag else 0
        longest = max(longest, run)
    return longest


def follow(clip, detect):
    """Which faces are found in which frames, frames x faces, and how many false boxes came up.

    `detect` turns a frame into boxes in its pixels and scores.
    """
    found, false_tracks = numpy.zeros(clip.boxes.shape[:2], bool), 0
    before = numpy.empty((0, 4), numpy.float32)
    for number, (frame, truth) in enumerate(zip(clip.frames, clip.boxes)):
        boxes, scores = detect(frame)
        faces_hit = metrics.match_picture(boxes, scores, truth, truth[:0]).faces
        found[number, faces_hit[faces_hit >= 0]] = True
        alarms = boxes[faces_hit < 0]
        if len(alarms):
            known = metrics.overlaps(alarms, before).max(1, initial=0) >= SAME
            false_tracks += int((~known).sum())
        before = alarms
    return found, false_tracks


def continuity(followed):
    """What is told of the clips of a kind, from what `follow` says of each."""
    found = [column for seen, _ in followed for column in seen.T]
    minutes = len(followed) * FRAMES / RATE / 60
    if found:
        back = sum(int((column[1:] & ~column[:-1]).sum()) - (not column[0] and column.any())
                   for column in found)
        recall, gap = float(numpy.mean(found)), max(longest_run(~column) for column in found)
        flicker = float(back / (len(found) * FRAMES / RATE / 60))
    else:
        recall, gap, flicker = float("nan"), 0, float("nan")
    return Continuity(len(found), recall, gap, flicker,
                      sum(count for _, count in followed) / minutes)


def measure(pictures, detect):
    """Continuity by kind of clip."""
    followed = collections.defaultdict(list)
    for kind, clip in make(pictures):
        followed[kind].append(follow(clip, detect))
    return {kind: continuity(parts) for kind, parts in followed.items()}
