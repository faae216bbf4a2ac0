"""Shifts the scores so that the detector's fixed threshold is where precision and recall meet best.

    python3 -m training.calibrate --data PATH --weights weights.bin --output calibrated.bin
    python3 -m training.calibrate --data PATH --data PATH --most-alarms 0.01 ...
    python3 -m training.calibrate --shift -0.1 --weights weights.bin --output calibrated.bin

The score is the softmax of two logits: adding a constant to their difference moves all scores and
changes the order of none. The constant goes into the biases of the three last `conf` layers; it
turns the threshold of the best F1 over all sets into the detector's own, or a higher one if there
would be more false alarms a faceless picture than allowed in any of the sets. The pictures should
not be those that the detector is measured on later. --shift gives the constant itself, for those
who want fewer false alarms or fewer missed faces than that.
"""

import argparse
import math
import pathlib
import sys

import cv2

from training import conditions, detector_library, evaluate, faces, metrics, weight_block
from training.contract import THRESHOLD
from training.network import FaceNetwork

FACES = "16 and more"  # those whose F1 counts


def logit(score):
    return math.log(score / (1 - score))


def shifted(tensors, shift):
    """The block's tensors with `shift` added to the logit of "face" against "no face"."""
    result = dict(tensors)
    for name, values in tensors.items():
        if name.startswith("conf.") and name.endswith(".2.bias"):
            result[name] = values.copy()
            result[name][0::2] -= shift / 2
            result[name][1::2] += shift / 2
    return result


def thresholds(path, folders, most_alarms):
    """The best point over all the folders' pictures, and the score that few enough alarms pass."""
    detector = detector_library.Detector(detector_library.Library(detector_library.build(path)))
    parts, lowest = [], 0.0
    for folder in folders:
        alarms, faceless = [], 0
        for picture in faces.load(folder):
            scene = conditions.from_picture(picture, faces.read_image(picture))
            parts.append(evaluate.examine(detector, scene)[0])
            if len(picture.boxes) == 0:
                faceless += 1
                alarms += parts[-1].scores.tolist()
        lowest = max(lowest, quiet_threshold(alarms, most_alarms * faceless))
    best = metrics.best_point(metrics.counted(metrics.joined(parts), *metrics.SIZE_CLASSES[FACES]))
    if not best.f1 > 0:
        raise ValueError(f"{', '.join(folders)}: no face of {FACES} pixels is found: "
                         "nothing to go by")
    return best, lowest


def quiet_threshold(alarms, most):
    """The lowest threshold that no more than `most` of the scores exceed."""
    alarms = sorted(alarms, reverse=True)
    return alarms[int(most)] if len(alarms) > most else 0.0


def main(arguments=None):
    parser = argparse.ArgumentParser("training.calibrate", description=__doc__.splitlines()[0])
    shift = parser.add_mutually_exclusive_group(required=True)
    shift.add_argument("--data", action="append", help="folder of pictures and boxes; any number")
    shift.add_argument("--shift", type=float, help="what to add to the logits")
    parser.add_argument("--most-alarms", type=float, default=math.inf,
                        help="false alarms a faceless picture (default: any number)")
    parser.add_argument("--weights", required=True, help="the weight block to start from")
    parser.add_argument("--output", required=True, help="where the new block goes")
    options = parser.parse_args(arguments)
    if not options.most_alarms >= 0:
        parser.error("--most-alarms: at least 0")
    cv2.setNumThreads(1)
    try:
        shift = options.shift
        if options.data:
            best, lowest = thresholds(options.weights, options.data, options.most_alarms)
            print(f"best F1 {best.f1:.3f} (precision {best.precision:.3f}, "
                  f"recall {best.recall:.3f}) at {best.threshold:.3f}; few enough false alarms "
                  f"from {lowest:.3f} on")
            shift = logit(THRESHOLD) - logit(max(best.threshold, lowest))
        tensors = weight_block.read(options.weights, FaceNetwork().block_shapes())
        weight_block.write(pathlib.Path(options.output), shifted(tensors, shift))
    except (OSError, ValueError, detector_library.NotBuilt) as error:
        print(f"training.calibrate: {error}", file=sys.stderr)
        return 2
    print(f"logits shifted by {shift:+.3f}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
