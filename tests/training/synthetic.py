"""Small sets of pictures whose contents are known, and boxes measured the plain way."""

import atexit
import contextlib
import io
import pathlib
import shutil
import tempfile

import cv2
import numpy


def new_folder():
    """An empty folder, which goes when the tests end."""
    path = tempfile.mkdtemp()
    atexit.register(shutil.rmtree, path, ignore_errors=True)
    return pathlib.Path(path)


def call(main, *arguments):
    """What a program's `main` comes to: its exit status, its output and its error output."""
    output, errors = io.StringIO(), io.StringIO()
    with contextlib.redirect_stdout(output), contextlib.redirect_stderr(errors):
        try:
            status = main([str(argument) for argument in arguments])
        except SystemExit as stop:  # argparse
            status = stop.code
    return status, output.getvalue(), errors.getvalue()


def write(folder, pictures):
    """Writes a set: pictures is a list of (image, boxes, doubtful); boxes are x, y, w, h."""
    (folder / "images").mkdir(parents=True)
    lines = []
    for number, (image, boxes, doubtful) in enumerate(pictures):
        name = f"picture{number}.png"
        cv2.imwrite(str(folder / "images" / name), image)
        lines += [name, str(len(boxes))]
        lines += ["%g %g %g %g %d" % (*box, flag) for box, flag in zip(boxes, doubtful)]
    (folder / "boxes.txt").write_text("\n".join(lines) + "\n")
    return folder


def squares(seed, count, sides=(120, 300)):
    """Pictures of noise with a bright square each, which is its face, and one without."""
    random = numpy.random.default_rng(seed)
    pictures = []
    for number in range(count):
        height, width = random.integers(*sides, 2)
        image = random.integers(0, 60, (height, width, 3)).astype(numpy.uint8)
        boxes = []
        if number != 0:
            side = int(random.integers(30, min(height, width) // 2))
            x, y = int(random.integers(0, width - side)), int(random.integers(0, height - side))
            image[y:y + side, x:x + side] = 250
            boxes = [(x, y, side, side)]
        pictures.append((image, boxes, [0] * len(boxes)))
    return pictures


def bright_part(image):
    """Where the bright square is: x1, y1, x2, y2."""
    ys, xs = (image.min(2) > 150).nonzero()
    return [xs.min(), ys.min(), xs.max() + 1, ys.max() + 1]


def portrait():
    """The photograph of the other tests, one large face: 120 x 160 x 3 bytes, B G R."""
    path = pathlib.Path(__file__).parent.parent / "data" / "portrait_160x120.i420"
    planes = numpy.fromfile(path, numpy.uint8).reshape(180, 160)
    return cv2.cvtColor(planes, cv2.COLOR_YUV2BGR_I420)


def area(box):
    return max(box[2] - box[0], 0) * max(box[3] - box[1], 0)


def shared(a, b):
    """The area that both boxes have."""
    return area((max(a[0], b[0]), max(a[1], b[1]), min(a[2], b[2]), min(a[3], b[3])))


def overlap(a, b):
    """Intersection over union."""
    return shared(a, b) / (area(a) + area(b) - shared(a, b))
