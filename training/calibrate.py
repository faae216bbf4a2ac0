"""Shifts the scores so that the detector's fixed threshold is where precision and recall meet best.

    python3 -m training.calibrate --data PATH --weights weights.bin --output calibrated.bin
    python3 -m training.calibrate --shift -0.1 --weights weights.bin --output calibrated.bin

The score is the softmax of two logits: adding a constant to their difference moves all scores and
changes the order of none. The constant goes into the biases of the three last `conf` layers; it
turns the threshold of the best F1 into the detector's own. The pictures should not be those that
the detector is measured on later. --shift gives the constant itself, for those who want fewer false
alarms or fewer missed faces than that.
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


def best_point(path, folder):
    """Where the detector with these weights has its best F1 on the folder's pictures."""
    detector = detector_library.Detector(detector_library.Library(detector_library.build(path)))
    scenes = (conditions.from_picture(picture, faces.read_image(picture))
              for picture in faces.load(folder))
    parts = [evaluate.examine(detector, scene)[0] for scene in scenes]
    best = metrics.best_point(metrics.counted(metrics.joined(parts),
                                             *metrics.SIZE_CLASSES[FACES]))
    if not best.f1 > 0:
        raise ValueError(f"{folder}: no face of {FACES} pixels is found: nothing to go by")
    return best


def main(arguments=None):
    parser = argparse.ArgumentParser("training.calibrate", description=__doc__.splitlines()[0])
    shift = parser.add_mutually_exclusive_group(required=True)
    shift.add_argument("--data", help="folder of pictures and boxes")
    shift.add_argument("--shift", type=float, help="what to add to the logits")
    parser.add_argument("--weights", required=True, help="the weight block to start from")
    parser.add_argument("--output", required=True, help="where the new block goes")
    options = parser.parse_args(arguments)
    cv2.setNumThreads(1)
    try:
        shift = options.shift
        if options.data:
            best = best_point(options.weights, options.data)
            print(f"best F1 {best.f1:.3f} (precision {best.precision:.3f}, "
                  f"recall {best.recall:.3f}) at {best.threshold:.3f}")
            shift = logit(THRESHOLD) - logit(best.threshold)
        tensors = weight_block.read(options.weights, FaceNetwork().block_shapes())
        weight_block.write(pathlib.Path(options.output), shifted(tensors, shift))
    except (OSError, ValueError, detector_library.NotBuilt) as error:
        print(f"training.calibrate: {error}", file=sys.stderr)
        return 2
    print(f"logits shifted by {shift:+.3f}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
