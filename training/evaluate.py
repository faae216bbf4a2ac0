"""Measures the detector on a set of labelled pictures.

    python3 -m training.evaluate --data PATH

    picture --condition--> picture --convert--> I420 frame --detect--> boxes --match--> figures

The whole road from the frame on is the module's own code (detector_library.py), and so is the
conversion to I420: BT.601, limited range, luma within 2 levels. Each picture is a first frame, so
nothing is tracked. For the curves all boxes above a score of 0.03 are taken; those above the
module's threshold of 0.65 are what it finds, and the first six of them what it reports.
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

from training import (conditions, detector_library, evaluation_report, faces, metrics, peers,
                      steadiness)
from training.contract import MOST_REPORTED, SIDE, THRESHOLD

LOWEST_SCORE = 0.03
MOST_BOXES = 200
SMALLEST_STEADY = 16  # smaller faces hardly pass the threshold


def parseArguments(arguments):
    parser = argparse.ArgumentParser("training.evaluate", description=__doc__.splitlines()[0])
    parser.add_argument("--data", required=True, help="folder of pictures and boxes")
    parser.add_argument("--output", help="folder for figures.json and the plots")
    parser.add_argument("--peers", action="store_true", help="measure other detectors, too")
    parser.add_argument("--weights", help="another weight block, built into a library of its own")
    parser.add_argument("--limit", type=int, help="only so many pictures, spread over the set")
    options = parser.parse_args(arguments)
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
    labels = stretch(scene.boxes, scene.image.shape[1::-1])
    return metrics.matchPicture(boxes, scores, labels[~scene.doubtful], labels[scene.doubtful])


def examine(detector, scene):
    """A scene's Matches, and its boxes for the steadiness."""
    boxes, scores = detect(detector, scene.image)
    return match(scene, boxes, scores), boxes


class Evaluation:
    """Goes through the pictures once and keeps what was matched under each condition."""

    def __init__(self, detector, others):
        self.detector = detector
        self.peers = others
        self.asIs = []
        self.alarms = []  # of each faceless picture
        self.conditions = collections.defaultdict(list)  # (group, name) -> Matches
        self.nudges = collections.defaultdict(list)  # name -> Sightings, before and after
        self.found = collections.defaultdict(list)  # peer -> Matches
        self.peerAlarms = collections.defaultdict(list)  # peer -> scores in faceless pictures

    def add(self, index, picture):
        scene = conditions.fromPicture(picture, faces.readImage(picture))
        matches, boxes = examine(self.detector, scene)
        self.asIs.append(matches)
        if len(picture.boxes) == 0:
            self.alarms.append(int((matches.scores > THRESHOLD).sum()))
        for name, aspect in conditions.ASPECTS.items():
            self.conditions["aspect", name].append(
                examine(self.detector, conditions.cropped(scene, aspect))[0])
        for name, spoil in conditions.SPOILED.items():
            image = spoil(scene.image, conditions.random(index))
            self.conditions["fault", name].append(
                examine(self.detector, scene._replace(image=image))[0])
        if (matches.faceSizes >= SMALLEST_STEADY).any():
            self.nudge(index, scene, steadiness.sightings(matches, boxes))
        for name, peer in self.peers.items():
            boxes, scores = peer(self.detector.library.prepareInput(
                self.detector.library.convert(scene.image)))
            self.found[name].append(match(scene, boxes, scores))
            if len(picture.boxes) == 0:
                self.peerAlarms[name].append(scores)

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
        asIs = metrics.joined(self.asIs)
        summaries = collections.defaultdict(dict)
        for (group, name), parts in self.conditions.items():
            summaries[group][name] = summary(metrics.joined(parts))
        reported = metrics.joined([metrics.firstBoxes(part, MOST_REPORTED) for part in self.asIs])
        result = {
            "pictures": len(self.asIs),
            "sizes": bySize(asIs, THRESHOLD),
            "facelessPictures": len(self.alarms),
            "falseAlarmsPerFacelessPicture": mean(self.alarms),
            "reported": bySize(reported, THRESHOLD)["16 and more"],
            "pictureAsIs": summary(asIs),
            "aspects": summaries["aspect"],
            "faults": summaries["fault"],
            "smallestSteady": SMALLEST_STEADY,
            "steadiness": {name: self.compared(pairs) for name, pairs in self.nudges.items()},
            "peers": {},
        }
        for name, parts in self.found.items():
            matches = metrics.joined(parts)
            best = metrics.bestPoint(metrics.counted(matches, *metrics.SIZE_CLASSES["16 and more"]))
            result["peers"][name] = {
                "threshold": best.threshold,
                "sizes": bySize(matches, best.threshold),
                "falseAlarmsPerFacelessPicture": mean(
                    [(scores > best.threshold).sum() for scores in self.peerAlarms[name]])}
        return result

    @staticmethod
    def compared(pairs):
        before, after = (steadiness.Sightings(*map(numpy.concatenate, zip(*side)))
                         for side in zip(*pairs))
        return steadiness.compare(before, after, THRESHOLD, SMALLEST_STEADY)._asdict()

    def matches(self):
        """Of each detector on the pictures as they are, the module first."""
        parts = {"this detector": self.asIs, **self.found}
        return {name: metrics.joined(part) for name, part in parts.items()}


def mean(values):
    return float(numpy.mean(values)) if len(values) else float("nan")


def bySize(matches, threshold):
    """What is told of each size class, in the order of the report's columns."""
    rows = {}
    for name, sizes in metrics.SIZE_CLASSES.items():
        count = metrics.counted(matches, *sizes)
        point, best = metrics.pointAt(count, threshold), metrics.bestPoint(count)
        rows[name] = {"faces": count.faceCount, "ap": metrics.averagePrecision(count),
                      "precision": point.precision, "recall": point.recall, "f1": point.f1,
                      "bestF1": best.f1, "bestThreshold": best.threshold}
    return rows


def summary(matches):
    """The two classes that sum up the others, and the operating point on the larger faces.

    In the order of the report's columns.
    """
    small, large = (metrics.counted(matches, *metrics.SIZE_CLASSES[name])
                    for name in ("8 and more", "16 and more"))
    point = metrics.pointAt(large, THRESHOLD)
    return {"faces8": small.faceCount, "ap8": metrics.averagePrecision(small),
            "faces16": large.faceCount, "ap16": metrics.averagePrecision(large),
            "precision": point.precision, "recall": point.recall, "f1": point.f1}


def withoutNan(value):
    """JSON has no NaN: null stands for it."""
    if isinstance(value, dict):
        return {key: withoutNan(part) for key, part in value.items()}
    return None if isinstance(value, float) and value != value else value


def write(folder, figures, evaluation):
    from training import plots  # matplotlib takes a second to come
    (folder / "figures.json").write_text(json.dumps(withoutNan(figures), indent=2) + "\n")
    matches = evaluation.matches()
    plots.precisionRecall(matches, THRESHOLD, folder / "precision_recall.png")
    plots.scoreHistogram(matches["this detector"], THRESHOLD, folder / "scores.png")


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
    evaluation = Evaluation(detector_library.Detector(library), others)
    for index, picture in enumerate(pictures):
        evaluation.add(index, picture)
        if sys.stderr.isatty():
            print(f"\r{index + 1} of {len(pictures)} pictures ", end="", file=sys.stderr)
    if sys.stderr.isatty():
        print("\r\033[K", end="", file=sys.stderr)
    figures = {"data": str(options.data), "dataDigest": faces.digest(options.data),
               "weightsDigest": hashlib.sha256(library.weights()).hexdigest(),
               "date": datetime.date.today().isoformat(), "threshold": THRESHOLD,
               **evaluation.figures()}
    print(evaluation_report.asText(figures))
    if options.output:
        write(pathlib.Path(options.output), figures, evaluation)


def main(arguments=None):
    options = parseArguments(arguments)
    cv2.setNumThreads(1)  # pictures are too small to share
    try:
        evaluate(options)
    except (OSError, ValueError, detector_library.NotBuilt) as error:
        print(f"training.evaluate: {error}", file=sys.stderr)
        return 2
    return 0


if __name__ == "__main__":
    sys.exit(main())
