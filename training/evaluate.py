"""Measures the detector on a set of labelled pictures.

    python3 -m training.evaluate --data PATH

    picture --condition--> picture --convert--> I420 frame --detect--> boxes --match--> figures

The whole road from the frame on is the module's own code (detector_library.py), and so is the
conversion to I420: BT.601, limited range, luma within 2 levels. Each picture is a first frame, so
nothing is tracked. For the curves all boxes above a score of 0.03 are taken; those above the
module's threshold of 0.65 are what it finds, and the first six of them what it reports.

A face's size is that in the picture stretched to the network's square, under every condition but
the other aspects: so all are judged on the same faces.
"""

import argparse
import collections
import datetime
import hashlib
import json
import pathlib
import sys

import cv2
import numpy

from training import (clips, conditions, detector_library, evaluation_report, faces, larger,
                      metrics, peers, steadiness, windows)
from training.contract import MOST_REPORTED, SIDE, THRESHOLD
from training.network import FaceNetwork

LOWEST_SCORE = 0.03
MOST_BOXES = 200
SMALLEST_STEADY = 16  # smaller faces hardly pass the threshold
SQUARE_WEIGHTS = detector_library.ROOT / "engine" / "model" / "weights_square.bin"
POSES = {"frontal": faces.FRONTAL, "half profile": faces.HALF_PROFILE, "profile": faces.PROFILE}
SMALLEST_POSED = 8


def parse_arguments(arguments):
    parser = argparse.ArgumentParser("training.evaluate", description=__doc__.splitlines()[0])
    parser.add_argument("--data", required=True, help="folder of pictures and boxes")
    parser.add_argument("--output", help="folder for figures.json and the plots")
    parser.add_argument("--peers", action="store_true", help="measure other detectors, too")
    parser.add_argument("--weights", help="another weight block, built into a library of its own")
    parser.add_argument("--limit", type=int, help="only so many pictures, spread over the set")
    parser.add_argument("--clips", action="store_true",
                        help="measure moving scenes made from the pictures, too")
    parser.add_argument("--brief", action="store_true",
                        help="no other aspects, spoiled pictures and steadiness; much faster")
    parser.add_argument("--windows", type=int, nargs="+", default=[], metavar="MOST",
                        help="look through as many windows as a host would that allows so many, "
                             "too: accuracy and time")
    parser.add_argument("--square-weights", default=SQUARE_WEIGHTS,
                        help="weight block for nearly square windows (default: the host's)")
    parser.add_argument("--sides", type=int, nargs="+", default=[],
                        help="lengths of the longer side to run the network on, aspect kept")
    options = parser.parse_args(arguments)
    if any(not 32 <= side <= 2048 for side in options.sides):
        parser.error("--sides: from 32 to 2048")
    if any(not 1 <= most <= 256 for most in options.windows):
        parser.error("--windows: from 1 to 256")
    if options.limit is not None and options.limit < 1:
        parser.error("--limit: at least 1")
    return options


def stretch(boxes, size):
    """From pixels of a frame to pixels of the network's input."""
    return boxes * numpy.tile(numpy.float32(SIDE) / numpy.float32(size), 2)


def detect(detector, image):
    """The boxes in input pixels and their scores."""
    frame = detector.library.convert(image)
    boxes, scores = detector.detect(frame, LOWEST_SCORE, MOST_BOXES)
    return stretch(boxes, frame.size), scores


def match(scene, boxes, scores):
    """Boxes are in input pixels of the stretched picture."""
    labels = stretch(scene.boxes, scene.image.shape[1::-1])
    return metrics.match_picture(boxes, scores, labels[~scene.doubtful], labels[scene.doubtful])


def examine(detector, scene):
    """A scene's Matches, and its boxes for the steadiness."""
    boxes, scores = detect(detector, scene.image)
    return match(scene, boxes, scores), boxes


def examine_padded(detector, scene):
    """The Matches of a scene that keeps its aspect."""
    image = conditions.padded(scene.image)
    boxes, scores = detect(detector, image)
    boxes = boxes * (numpy.float32(image.shape[0]) / SIDE)  # pixels of the picture
    return match(scene, stretch(boxes, scene.image.shape[1::-1]), scores)


class Evaluation:
    """Goes through the pictures once and keeps what was matched under each condition."""

    def __init__(self, detector, others, network=None, sides=(), brief=False, searches=()):
        self.detector = detector
        self.searches = searches
        self.brief = brief
        self.peers = others
        self.network, self.sides = network, sides
        self.as_is = []
        self.poses = []
        self.bare = []  # of each picture, whether it has no face
        self.alarms = []  # of each faceless picture
        self.through_windows = collections.defaultdict(list)  # most -> (Matches, windows, seconds)
        self.conditions = collections.defaultdict(list)  # (group, name) -> Matches
        self.nudges = collections.defaultdict(list)  # name -> Sightings, before and after
        self.found = collections.defaultdict(list)  # peer -> Matches
        self.peer_alarms = collections.defaultdict(list)  # peer -> scores in faceless pictures

    def add(self, index, picture):
        scene = conditions.from_picture(picture, faces.read_image(picture))
        matches, boxes = examine(self.detector, scene)
        self.as_is.append(matches)
        self.poses.append(picture.poses[~picture.doubtful])
        self.bare.append(len(picture.boxes) == 0)
        if len(picture.boxes) == 0:
            self.alarms.append(int((matches.scores > THRESHOLD).sum()))
        for name, aspect in conditions.ASPECTS.items() if not self.brief else ():
            self.conditions["aspect", name].append(
                examine(self.detector, conditions.cropped(scene, aspect))[0])
        self.conditions["natural", "aspect kept"].append(examine_padded(self.detector, scene))
        for side in self.sides:
            found, scores = larger.detect(self.network, scene.image, side, LOWEST_SCORE)
            self.conditions["natural", f"aspect kept, {side}"].append(
                match(scene, stretch(found, scene.image.shape[1::-1]), scores))
        frame = self.detector.library.convert(scene.image) if self.searches else None
        for search in self.searches:
            found = search.detect(frame)
            self.through_windows[search.most_windows].append(
                (match(scene, stretch(found.boxes, frame.size), found.scores), found.windows,
                 found.seconds))
        for name, spoil in conditions.SPOILED.items() if not self.brief else ():
            image = spoil(scene.image, conditions.random(index))
            self.conditions["fault", name].append(
                examine(self.detector, scene._replace(image=image))[0])
        if (matches.face_sizes >= SMALLEST_STEADY).any() and not self.brief:
            self.nudge(index, scene, steadiness.sightings(matches, boxes))
        for name, peer in self.peers.items():
            boxes, scores = peer(self.detector.library.prepare_input(
                self.detector.library.convert(scene.image)))
            self.found[name].append(match(scene, boxes, scores))
            if len(picture.boxes) == 0:
                self.peer_alarms[name].append(scores)

    def nudge(self, index, scene, before):
        width = scene.image.shape[1]
        for name, (change, moved) in conditions.NUDGED.items():
            image = change(scene.image, conditions.random(index))
            way = numpy.float32([moved, 0, moved, 0])
            matches, boxes = examine(self.detector, scene._replace(image=image,
                                                               boxes=scene.boxes + way))
            boxes = boxes - stretch(way, (width, 1))
            self.nudges[name].append((before, steadiness.sightings(matches, boxes)))

    def figures(self):
        """Everything that is reported, as plain values."""
        as_is = metrics.joined(self.as_is)
        summaries = collections.defaultdict(dict)
        for (group, name), parts in self.conditions.items():
            summaries[group][name] = summary(metrics.joined(parts))
        reported = metrics.joined([metrics.first_boxes(part, MOST_REPORTED) for part in self.as_is])
        result = {
            "pictures": len(self.as_is),
            "sizes": by_size(as_is, THRESHOLD),
            "faceless_pictures": len(self.alarms),
            "false_alarms_per_faceless_picture": mean(self.alarms),
            "reported": by_size(reported, THRESHOLD)["16 and more"],
            "picture_as_is": summary(as_is),
            "aspects": summaries["aspect"],
            "natural": summaries["natural"],
            "false_alarms_aspect_kept": mean(
                [(part.scores > THRESHOLD).sum()
                 for part, bare in zip(self.conditions["natural", "aspect kept"], self.bare)
                 if bare]),
            "poses": by_pose(as_is, numpy.concatenate(self.poses)),
            "faults": summaries["fault"],
            "smallest_steady": SMALLEST_STEADY,
            "steadiness": {name: self.compared(pairs) for name, pairs in self.nudges.items()},
            "windows": {most: self.through(parts) for most, parts in self.through_windows.items()},
            "peers": {},
        }
        for name, parts in self.found.items():
            matches = metrics.joined(parts)
            best = metrics.best_point(metrics.counted(matches,
                                                      *metrics.SIZE_CLASSES["16 and more"]))
            result["peers"][name] = {
                "threshold": best.threshold,
                "sizes": by_size(matches, best.threshold),
                "false_alarms_per_faceless_picture": mean(
                    [(scores > best.threshold).sum() for scores in self.peer_alarms[name]])}
        return result

    def through(self, parts):
        """What is told of a number of windows, in the order of the report's columns."""
        matches, counts, seconds = zip(*parts)
        count = metrics.counted(metrics.joined(matches), *metrics.SIZE_CLASSES["8 and more"])
        point = metrics.point_at(count, THRESHOLD)
        return {"windows": mean(counts), "milliseconds": 1000 * float(numpy.median(seconds)),
                "ap8": metrics.average_precision(count), "precision": point.precision,
                "recall": point.recall,
                "alarms": mean([(part.scores > THRESHOLD).sum()
                                for part, bare in zip(matches, self.bare) if bare])}

    @staticmethod
    def compared(pairs):
        before, after = (steadiness.Sightings(*map(numpy.concatenate, zip(*side)))
                         for side in zip(*pairs))
        return steadiness.compare(before, after, THRESHOLD, SMALLEST_STEADY)._asdict()

    def matches(self):
        """Of each detector on the pictures as they are, the module first."""
        parts = {"this detector": self.as_is, **self.found}
        return {name: metrics.joined(part) for name, part in parts.items()}


def mean(values):
    return float(numpy.mean(values)) if len(values) else float("nan")


def by_size(matches, threshold):
    """What is told of each size class, in the order of the report's columns."""
    rows = {}
    for name, sizes in metrics.SIZE_CLASSES.items():
        count = metrics.counted(matches, *sizes)
        point, best = metrics.point_at(count, threshold), metrics.best_point(count)
        rows[name] = {"faces": count.face_count, "ap": metrics.average_precision(count),
                      "precision": point.precision, "recall": point.recall, "f1": point.f1,
                      "best_f1": best.f1, "best_threshold": best.threshold}
    return rows


def by_pose(matches, poses):
    """How many faces of each pose there are, and the share that is found at the threshold."""
    found = numpy.zeros(len(matches.face_sizes), bool)
    sure = (matches.faces >= 0) & (matches.scores > THRESHOLD)
    found[matches.faces[sure]] = True
    rows = {}
    for name, pose in POSES.items():
        wanted = (poses == pose) & (matches.face_sizes >= SMALLEST_POSED)
        rows[name] = {"faces": int(wanted.sum()), "recall": mean(found[wanted])}
    return rows


def summary(matches):
    """The two classes that sum up the others, and the operating point on the larger faces.

    In the order of the report's columns.
    """
    small, large = (metrics.counted(matches, *metrics.SIZE_CLASSES[name])
                    for name in ("8 and more", "16 and more"))
    point = metrics.point_at(large, THRESHOLD)
    return {"faces8": small.face_count, "ap8": metrics.average_precision(small),
            "faces16": large.face_count, "ap16": metrics.average_precision(large),
            "precision": point.precision, "recall": point.recall, "f1": point.f1}


def without_nan(value):
    """JSON has no NaN: null stands for it."""
    if isinstance(value, dict):
        return {key: without_nan(part) for key, part in value.items()}
    return None if isinstance(value, float) and value != value else value


def write(folder, figures, evaluation):
    from training import plots  # matplotlib takes a second to come
    (folder / "figures.json").write_text(json.dumps(without_nan(figures), indent=2) + "\n")
    matches = evaluation.matches()
    plots.precision_recall(matches, THRESHOLD, folder / "precision_recall.png")
    plots.score_histogram(matches["this detector"], THRESHOLD, folder / "scores.png")


def chosen(pictures, limit):
    if limit is None or limit >= len(pictures):
        return pictures
    return [pictures[i * len(pictures) // limit] for i in range(limit)]


def evaluate(options):
    if options.output:
        pathlib.Path(options.output).mkdir(parents=True, exist_ok=True)
    pictures = chosen(faces.load(options.data), options.limit)
    if not pictures:
        raise ValueError(f"{options.data}: no pictures")
    others = peers.load() if options.peers else {}
    library = detector_library.Library(
        detector_library.build(options.weights) if options.weights else None)
    network = None
    if options.sides:
        network = FaceNetwork().eval()
        network.take(library.weights())
    detector = detector_library.Detector(library)
    searches = []
    if options.windows:
        square = detector_library.Detector(detector_library.Library(
            detector_library.build(options.square_weights, detector_library.SQUARE_TREE)))
        searches = [windows.WindowSearch(detector, square, most) for most in options.windows]
    evaluation = Evaluation(detector, others, network, options.sides, options.brief, searches)
    for index, picture in enumerate(pictures):
        evaluation.add(index, picture)
        if sys.stderr.isatty():
            print(f"\r{index + 1} of {len(pictures)} pictures ", end="", file=sys.stderr)
    if sys.stderr.isatty():
        print("\r\033[K", end="", file=sys.stderr)
    figures = {"data": str(options.data), "data_digest": faces.digest(options.data),
               "weights_digest": hashlib.sha256(library.weights()).hexdigest(),
               "date": datetime.date.today().isoformat(), "threshold": THRESHOLD,
               **evaluation.figures(), "clips": {}}
    if options.clips:
        figures["clips"] = {kind: row._asdict() for kind, row in clips.measure(
            pictures, lambda frame: evaluation.detector.detect(library.convert(frame))).items()}
    print(evaluation_report.as_text(figures))
    if options.output:
        write(pathlib.Path(options.output), figures, evaluation)


def main(arguments=None):
    options = parse_arguments(arguments)
    cv2.setNumThreads(1)  # pictures are too small to share
    try:
        evaluate(options)
    except (OSError, ValueError, detector_library.NotBuilt) as error:
        print(f"training.evaluate: {error}", file=sys.stderr)
        return 2
    return 0


if __name__ == "__main__":
    sys.exit(main())
