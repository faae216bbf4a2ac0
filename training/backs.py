"""Makes backs of heads out of faces: pictures without a face that look much like one.

    python3 -m training.backs --data faces/train --data extra@train --output backs
    python3 -m training.train --data faces/train --data backs --source-weight back=3 ...

Of pictures with one to four labelled faces, all of them large enough, each face is covered with hair
down to a nape: the outline of the head, ears, neck and shoulders stay, eyes, nose and mouth go. What
is left teaches that a head is no face. The folder gets a list of boxes without a box; the names
begin with back_.
"""

import argparse
import pathlib
import random
import sys

import cv2
import numpy

from training import faces

SMALLEST_FACE = 22  # width, pixels of the picture
MOST_FACES = 4
TO_SKIN = 0.75  # what is brighter above a face than so much of its skin isn't hair
RECOLOURED = 0.25  # the share of heads that get another colour of hair
USUAL_SKIN = 120
HAIR_COLOURS = ((18, 16, 16), (25, 28, 38), (30, 42, 62), (45, 70, 100), (70, 70, 72),
                (12, 12, 14))  # B, G, R in daylight
JPEG_QUALITY = 95


def hair_colour(image, box, choice):
    """The colour right above the face if that is darker than its skin, a usual one otherwise."""
    x, y, width, height = box
    skin = image[int(y + 0.45 * height):int(y + 0.75 * height),
                 int(x + 0.3 * width):int(x + 0.7 * width)]
    skin = skin.mean() if skin.size else USUAL_SKIN  # a face that is cut off
    above = image[max(0, int(y - 0.28 * height)):max(1, int(y - 0.08 * height)),
                  int(x + 0.25 * width):int(x + 0.75 * width)].reshape(-1, 3)
    found = numpy.median(above, 0) if len(above) > 4 and y > 0.2 * height else None
    if found is not None and found.mean() <= TO_SKIN * skin and choice.random() >= RECOLOURED:
        return found
    daylight = numpy.array(choice.choice(HAIR_COLOURS)) * choice.uniform(0.6, 1.5)
    return daylight * min(1.2, max(0.35, skin / USUAL_SKIN))


def noise(shape, sigma_x, sigma_y, generator):
    """Smooth noise of variance 1."""
    values = cv2.GaussianBlur(generator.normal(0, 1, shape).astype(numpy.float32), (0, 0),
                              sigmaX=sigma_x, sigmaY=sigma_y)
    return values / (values.std() + 1e-6)


def cover(image, box, choice, generator):
    """The picture (floats) with hair over the face: round above, narrowing to the nape below."""
    x, y, width, height = box
    colour = hair_colour(image, box, choice)
    top = y - choice.uniform(0.12, 0.35) * height
    bottom = y + choice.uniform(0.72, 1.05) * height
    ears = y + choice.uniform(0.5, 0.65) * height
    middle = x + width / 2 + choice.uniform(-0.05, 0.05) * width
    half = width * choice.uniform(0.44, 0.56)
    nape = half * choice.uniform(0.15, 0.75)
    below = bottom - ears
    outline = [(middle + half * numpy.cos(angle), ears + (ears - top) * numpy.sin(angle))
               for angle in numpy.linspace(numpy.pi, 2 * numpy.pi, 24)]
    outline += [(middle + half * choice.uniform(0.8, 0.95), ears + 0.45 * below),
                (middle + nape, bottom - 0.1 * below),
                (middle, bottom + choice.uniform(-0.02, 0.08) * height),
                (middle - nape, bottom - 0.1 * below),
                (middle - half * choice.uniform(0.8, 0.95), ears + 0.45 * below)]
    mask = numpy.zeros(image.shape[:2], numpy.float32)
    cv2.fillPoly(mask, [numpy.round(numpy.array(outline) * 16).astype(numpy.int32)], 1, shift=4)
    mask = cv2.GaussianBlur(mask, (0, 0), max(0.6, width * 0.025))[..., None]

    strands = noise(mask.shape[:2], max(0.5, width * 0.012), max(0.8, width * 0.06), generator)
    locks = noise(mask.shape[:2], max(1, width * 0.2), max(1, width * 0.2), generator)
    rows, columns = numpy.mgrid[0:mask.shape[0], 0:mask.shape[1]]
    shade = 1.15 - 0.45 * (((columns - middle) / half) ** 2 +
                           ((rows - (top + ears) / 2) / (bottom - top)) ** 2)
    light = shade + choice.uniform(0.05, 0.3) * strands + choice.uniform(0.02, 0.15) * locks
    hair = colour * numpy.clip(light, 0.3, 2)[..., None]
    return image * (1 - mask) + numpy.clip(hair, 0, 255) * mask


def is_fit(picture):
    """Whether all of its faces can be covered; one that can't would be taught as background."""
    return (1 <= len(picture.boxes) <= MOST_FACES and not picture.doubtful.any() and
            picture.boxes[:, 2].min() >= SMALLEST_FACE)


def make(pictures, count, output, seed):
    """Writes at most so many pictures and their list; returns how many there are."""
    choice, generator = random.Random(seed), numpy.random.default_rng(seed)
    fit = [picture for picture in pictures if is_fit(picture)]
    choice.shuffle(fit)
    (output / "images").mkdir(parents=True)
    names = []
    for picture in fit[:count]:
        image = faces.read_image(picture).astype(numpy.float32)
        for box in picture.boxes:
            image = cover(image, box, choice, generator)
        names.append(f"back_{len(names):05}.jpg")
        encoded = cv2.imencode(".jpg", numpy.clip(image, 0, 255).astype(numpy.uint8),
                               (cv2.IMWRITE_JPEG_QUALITY, JPEG_QUALITY))[1]
        (output / "images" / names[-1]).write_bytes(encoded.tobytes())
    (output / "boxes.txt").write_text("".join(f"{name}\n0\n" for name in sorted(names)),
                                      encoding="utf-8")
    return len(names)


def main(arguments=None):
    parser = argparse.ArgumentParser("training.backs", description=__doc__.splitlines()[0])
    parser.add_argument("--data", action="append", required=True,
                        help="pictures with boxes; may be given several times")
    parser.add_argument("--count", type=int, default=2200, help="how many pictures (2200)")
    parser.add_argument("--seed", type=int, default=1, help="of what is random")
    parser.add_argument("--output", required=True, help="the new folder")
    options = parser.parse_args(arguments)
    try:
        pictures = [picture for folder in options.data for picture in faces.load(folder)]
        count = make(pictures, options.count, pathlib.Path(options.output), options.seed)
    except (OSError, ValueError) as error:
        print(f"training.backs: {error}", file=sys.stderr)
        return 2
    print(f"{options.output}: {count} pictures")
    return 0


if __name__ == "__main__":
    sys.exit(main())
