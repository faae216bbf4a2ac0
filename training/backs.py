"""Makes backs of heads out of faces: pictures without a face that look much like one.

    python3 -m training.backs --data faces/train --data extra@train --output backs
    python3 -m training.train --data faces/train --data backs --source-weight back=3 ...

Of pictures with one to four labelled faces, all of them large enough, each face is covered with hair
down to a nape: the outline of the head, ears, neck and shoulders stay, eyes, nose and mouth go. Of
short hair, bare skin shows from the nape down to the collar. What is left teaches that a head is no
face. The folder's list of boxes has the heads as lures; the names begin with back_.
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
SHORT_HAIRED = 0.6  # the share of heads whose hair ends well above the chin
RECOLOURED = 0.25  # the share of heads that get another colour of hair
USUAL_SKIN = 120  # mean of its colours
USUAL_SKIN_COLOUR = (95, 120, 165)  # B, G, R
HAIR_COLOURS = ((18, 16, 16), (25, 28, 38), (30, 42, 62), (45, 70, 100), (70, 70, 72),
                (12, 12, 14))  # B, G, R in daylight
JPEG_QUALITY = 95


def hair_colour(image, box, skin, choice):
    """The colour right above the face if that is darker than its skin, a usual one otherwise."""
    x, y, width, height = box
    skin = skin.mean()
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


def arc(middle, half, level, reach, begin):
    """Half an ellipse, from the angle `begin` on: pi goes over the level, 0 goes below it."""
    return [(middle + half * numpy.cos(angle), level + reach * numpy.sin(angle))
            for angle in numpy.linspace(begin, begin + numpy.pi, 24)]


def painted(image, outline, blur, colour, light):
    """The picture with a soft-edged shape of one colour, brighter and darker by place."""
    mask = numpy.zeros(image.shape[:2], numpy.float32)
    cv2.fillPoly(mask, [numpy.round(numpy.array(outline) * 16).astype(numpy.int32)], 1, shift=4)
    mask = cv2.GaussianBlur(mask, (0, 0), blur)[..., None]
    return image * (1 - mask) + numpy.clip(colour * light[..., None], 0, 255) * mask


def skin_colour(image, box):
    """The usual colour of the cheeks; of a face that is cut off, a usual one."""
    x, y, width, height = box
    cheeks = image[max(0, int(y + 0.45 * height)):int(y + 0.75 * height),
                   max(0, int(x + 0.25 * width)):int(x + 0.75 * width)].reshape(-1, 3)
    return numpy.median(cheeks, 0) if len(cheeks) else numpy.array(USUAL_SKIN_COLOUR)


def cover(image, box, choice, generator):
    """The picture (floats) with hair over the face: round above, narrowing to the nape below."""
    x, y, width, height = box
    skin = skin_colour(image, box)
    colour = hair_colour(image, box, skin, choice)
    top = y - choice.uniform(0.12, 0.35) * height
    middle = x + width / 2 + choice.uniform(-0.05, 0.05) * width
    half = width * choice.uniform(0.44, 0.56)
    edge = max(0.6, width * 0.025)
    rows, columns = numpy.mgrid[0:image.shape[0], 0:image.shape[1]]
    across = ((columns - middle) / half) ** 2
    if choice.random() < SHORT_HAIRED:
        chin = y + choice.uniform(0.9, 1.1) * height
        neck = half * choice.uniform(0.85, 1)
        nape_light = choice.uniform(0.95, 1.15) - choice.uniform(0.05, 0.4) * across + \
            0.04 * noise(image.shape[:2], max(1, width * 0.1), max(1, width * 0.1), generator)
        level = y + 0.6 * height
        skull = arc(middle, neck, level, level - y, numpy.pi) + \
            arc(middle, neck, level, chin - level, 0)
        image = painted(image, skull, edge, skin, numpy.clip(nape_light, 0.4, 1.3))
        ears = y + choice.uniform(0.2, 0.4) * height
        bottom = y + choice.uniform(0.4, 0.72) * height
        nape = half * choice.uniform(0.15, 0.95)
    else:
        ears = y + choice.uniform(0.5, 0.65) * height
        bottom = y + choice.uniform(0.72, 1.05) * height
        nape = half * choice.uniform(0.15, 0.75)
    below = bottom - ears
    outline = arc(middle, half, ears, ears - top, numpy.pi)
    outline += [(middle + half * choice.uniform(0.8, 0.95), ears + 0.45 * below),
                (middle + nape, bottom - 0.1 * below),
                (middle, bottom + choice.uniform(-0.02, 0.08) * height),
                (middle - nape, bottom - 0.1 * below),
                (middle - half * choice.uniform(0.8, 0.95), ears + 0.45 * below)]
    strands = noise(image.shape[:2], max(0.5, width * 0.012), max(0.8, width * 0.06), generator)
    locks = noise(image.shape[:2], max(1, width * 0.2), max(1, width * 0.2), generator)
    shade = 1.15 - 0.45 * (across + ((rows - (top + ears) / 2) / (bottom - top)) ** 2)
    light = shade + choice.uniform(0.05, 0.3) * strands + choice.uniform(0.02, 0.15) * locks
    return painted(image, outline, edge, colour, numpy.clip(light, 0.3, 2))


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
    names, lines = [], []
    for picture in fit[:count]:
        image = faces.read_image(picture).astype(numpy.float32)
        for box in picture.boxes:
            image = cover(image, box, choice, generator)
        names.append(f"back_{len(names):05}.jpg")
        encoded = cv2.imencode(".jpg", numpy.clip(image, 0, 255).astype(numpy.uint8),
                               (cv2.IMWRITE_JPEG_QUALITY, JPEG_QUALITY))[1]
        (output / "images" / names[-1]).write_bytes(encoded.tobytes())
        lines += [names[-1], str(len(picture.boxes))]
        lines += [" ".join(f"{value:g}" for value in box) + f" {faces.LURE}"
                  for box in picture.boxes]
    (output / "boxes.txt").write_text("\n".join(lines) + "\n", encoding="utf-8")
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
