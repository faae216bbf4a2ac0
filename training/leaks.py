"""How often a face shows in videos whose faces tavro-fd has hidden.

    python3 -m training.leaks --program build/gcc/host/app/tavro-fd [--data FOLDER]

People walk through videos in which nobody is, so that it is known where their faces are in each frame.
They come in from the sides or go to and fro, come nearer, turn and tilt their heads, pass each other
and pass behind pillars. A face-frame is a face in a frame of which at least half is in view; it
leaks if a tenth of what is in view isn't hidden.

People are cut out of portraits: by default one of an astronaut, with --data pictures with one face of
at least 90 pixels from a folder in the form that faces.py reads. A turned head is a narrower one, since
a portrait has no other side.
"""

import argparse
import collections
import json
import pathlib
import subprocess
import sys
import tempfile

import cv2
import numpy

from training import faces

WIDTH, HEIGHT, RATE = 1280, 720, 25
PEOPLE = 3  # in a video
FACE_HEIGHTS = 24, 260  # pixels of the frame
BUCKETS = 48, 96  # limits between small, middle and large faces, by their height
HEAD = 1.15  # of a person's cut-out, in faces to each side of the face's middle
DARKEST = 60  # of a person; what is darker in the result was hidden
HIDDEN = 45
IN_VIEW, LEAKS = 0.5, 0.1
MARGIN = 0.25  # that of tavro-fd
ASTRONAUT = (180, 64, 92, 122)  # x y w h, by eye

MODES = {
    "every frame by itself": None,
    "one pass": ["--delay", "0", "-"],
    "two passes": [],
    "two passes, `--smallest-face 24`": ["--smallest-face", "24"],
    "two passes, `--smallest-face 12`": ["--smallest-face", "12"],
}

Person = collections.namedtuple("Person", "image box height way phase")
Truth = collections.namedtuple("Truth", "size place mask share")
Truth.__doc__ = """A face in a frame: height in pixels, corner x and y of its mask, what is in view of
it, and which share of it that is."""


def resource(name):
    """A file of Debian's python3-imageio."""
    listed = subprocess.run(["dpkg-query", "--listfiles", "python3-imageio"], check=True, text=True,
                            stdout=subprocess.PIPE).stdout
    return next(line for line in listed.splitlines() if line.endswith("/" + name))


def portraits(folder):
    """Images and boxes x y w h."""
    if folder is None:
        image = cv2.imread(resource("astronaut.png"))
        return [(image, numpy.float32(ASTRONAUT)), (image[:, ::-1].copy(), numpy.float32(
            (image.shape[1] - ASTRONAUT[0] - ASTRONAUT[2], *ASTRONAUT[1:])))]
    return [(faces.read_image(picture), picture.boxes[0]) for picture in faces.load(folder)
            if len(picture.boxes) == 1 and not picture.doubtful[0] and picture.boxes[0, 3] >= 90]


def background(path, count):
    """So many frames of a video, from its beginning again where it ends."""
    scale = f"fps={RATE},scale={WIDTH}:{HEIGHT}:force_original_aspect_ratio=increase," \
            f"crop={WIDTH}:{HEIGHT}"
    data = subprocess.run(["ffmpeg", "-nostdin", "-loglevel", "error", "-stream_loop", "-1", "-i", path,
                           "-vf", scale, "-frames:v", str(count), "-f", "rawvideo", "-pix_fmt", "bgr24",
                           "-"], check=True, stdout=subprocess.PIPE).stdout
    return numpy.frombuffer(data, numpy.uint8).reshape(count, HEIGHT, WIDTH, 3)


def pose(person, part):
    """The map 2 x 3 from a person's picture to the frame at that part of the video, 0 to 1."""
    turn = 2 * numpy.pi * (part + person.phase)
    height = person.height * numpy.exp(0.35 * numpy.sin(turn))
    across = -0.15 + 1.3 * part if person.way > 0 else 1.15 - 1.3 * part
    if abs(person.way) > 1:  # to and fro
        across = 0.5 + 0.35 * numpy.sin(turn * abs(person.way) / 2)
    middle = numpy.array([across * WIDTH, HEIGHT * (0.45 + 0.08 * numpy.sin(3 * turn))])
    scale = height / person.box[3]
    yaw, roll = numpy.radians(45) * numpy.sin(2 * turn), numpy.radians(15) * numpy.sin(5 * turn)
    matrix = scale * numpy.array([[numpy.cos(roll), -numpy.sin(roll)],
                                  [numpy.sin(roll), numpy.cos(roll)]]) * [numpy.cos(yaw), 1]
    centre = person.box[:2] + person.box[2:] / 2
    return numpy.column_stack([matrix, middle - matrix @ centre]), height


def ellipse(person, reach):
    """255 within `reach` faces around the face's middle, in the person's picture."""
    mask = numpy.zeros(person.image.shape[:2], numpy.uint8)
    centre = person.box[:2] + person.box[2:] / 2
    cv2.ellipse(mask, (tuple(map(float, centre)), tuple(map(float, 2 * reach * person.box[2:])), 0),
                255, -1)
    return mask


class Video:
    """Frames with people, and where their faces are in view."""

    def __init__(self, random, people, frames):
        self.frames = [frame.copy() for frame in frames]
        self.truths = [[] for _ in frames]
        pillars = [(int(x), int(x + width)) for x, width in zip(
            random.uniform(0.15, 0.8, 2) * WIDTH, random.uniform(0.04, 0.12, 2) * WIDTH)]
        cuts = [(cv2.GaussianBlur(ellipse(person, HEAD), (9, 9), 0), ellipse(person, 0.5))
                for person in people]
        for index, frame in enumerate(self.frames):
            shown = []
            plain = frame.copy()
            for person, (cut, face) in zip(people, cuts):
                matrix, height = pose(person, index / len(frames))
                warp = lambda image: cv2.warpAffine(image, matrix, (WIDTH, HEIGHT))
                alpha = warp(cut)[..., None] / numpy.float32(255)
                frame[:] = frame * (1 - alpha) + numpy.maximum(warp(person.image), DARKEST) * alpha
                for _, mask, _ in shown:
                    mask &= alpha[..., 0] < 0.5
                mask = warp(face) > 127
                # All of the face, also what is beyond the frame.
                whole = abs(numpy.linalg.det(matrix[:, :2])) * numpy.pi / 4 * person.box[2:].prod()
                shown.append((height, mask, whole))
            for left, right in pillars:
                stripe = plain[:, ::-1][:, left:right]
                frame[:, left:right] = cv2.GaussianBlur(stripe, (1, 31), 0)
                for _, mask, _ in shown:
                    mask[:, left:right] = False
            for height, mask, whole in shown:
                x, y, width, rows = cv2.boundingRect(mask.view(numpy.uint8))
                share = numpy.count_nonzero(mask) / whole
                if share >= IN_VIEW:
                    self.truths[index].append(
                        Truth(height, (x, y), mask[y:y + rows, x:x + width].copy(), share))

    def write(self, path):
        encoder = subprocess.Popen(
            ["ffmpeg", "-loglevel", "error", "-y", "-f", "rawvideo", "-pix_fmt", "bgr24", "-s",
             f"{WIDTH}x{HEIGHT}", "-r", str(RATE), "-i", "-", "-c:v", "libx264", "-preset", "veryfast",
             "-crf", "20", "-pix_fmt", "yuv420p", path], stdin=subprocess.PIPE)
        for frame in self.frames:
            encoder.stdin.write(frame.tobytes())
        encoder.stdin.close()
        if encoder.wait() != 0:
            raise RuntimeError("ffmpeg can't write " + path)


def run(program, *arguments, clip=None):
    with open(clip or "/dev/null", "rb") as stdin:
        subprocess.run([program, *arguments], check=True, stdin=stdin, stdout=subprocess.DEVNULL,
                       stderr=subprocess.DEVNULL)


def hidden_alone(program, clip, count):
    """For each frame which pixels the rectangles found in it hide, with their margins."""
    results = clip + ".jsonl"
    run(program, "--output", results, clip)
    lines = pathlib.Path(results).read_text(encoding="utf-8").splitlines()
    for line in lines[:count]:
        hidden = numpy.zeros((HEIGHT, WIDTH), bool)
        for face in json.loads(line)["faces"]:
            x = int((face["right"] - face["left"]) * MARGIN)
            y = int((face["bottom"] - face["top"]) * MARGIN)
            hidden[max(face["top"] - y, 0):max(face["bottom"] + y, 0),
                   max(face["left"] - x, 0):max(face["right"] + x, 0)] = True
        yield hidden


def hidden_by(program, clip, options):
    """For each frame which pixels tavro-fd has blackened."""
    result = clip + ".hidden.mkv"
    pipes = "-" in options
    run(program, "--blur", "--hide-style", "solid", "--annotate", result, *options,
        *([] if pipes else [clip]), clip=clip if pipes else None)
    decoder = subprocess.Popen(["ffmpeg", "-nostdin", "-loglevel", "error", "-i", result, "-f",
                                "rawvideo", "-pix_fmt", "gray", "-"], stdout=subprocess.PIPE)
    while data := decoder.stdout.read(WIDTH * HEIGHT):
        yield numpy.frombuffer(data, numpy.uint8).reshape(HEIGHT, WIDTH) < HIDDEN
    decoder.wait()


def bucket(height):
    return sum(height >= limit for limit in BUCKETS)


class Count:
    """Face-frames, and how many of them leak, by the face's size."""

    def __init__(self):
        self.all, self.leaking = (numpy.zeros(len(BUCKETS) + 1, int) for _ in range(2))
        self.hidden, self.pixels = 0, 0

    def add(self, truths, frame, hidden):
        is_bright = frame.min(2) >= DARKEST
        self.hidden += numpy.count_nonzero(hidden & is_bright)
        self.pixels += numpy.count_nonzero(is_bright)
        for truth in truths:
            (x, y), (rows, columns) = truth.place, truth.mask.shape
            covered = hidden[y:y + rows, x:x + columns][truth.mask].mean()
            self.all[bucket(truth.size)] += 1
            self.leaking[bucket(truth.size)] += covered <= 1 - LEAKS

    def row(self):
        """Shares in percent: all faces, those of each size, and what of the pictures is hidden."""
        shares = [self.leaking.sum() / max(self.all.sum(), 1),
                  *(self.leaking / numpy.maximum(self.all, 1)), self.hidden / max(self.pixels, 1)]
        return [f"{100 * share:.2f}" for share in shares]


def people_for(random, pictures):
    """The smallest face is furthest away, and so behind the others."""
    people = []
    for height in sorted(numpy.exp(random.uniform(*numpy.log(FACE_HEIGHTS), PEOPLE))):
        image, box = pictures[random.integers(len(pictures))]
        people.append(Person(image, box, height, random.choice([-1, 1, -2, 2]), random.uniform()))
    return people


def main():
    parser = argparse.ArgumentParser(prog="python3 -m training.leaks",
                                     description=__doc__.partition("\n")[0])
    parser.add_argument("--program", required=True, help="tavro-fd")
    parser.add_argument("--data", help="folder with portraits; default: an astronaut's")
    parser.add_argument("--videos", type=int, default=8, help="how many videos (default: 8)")
    parser.add_argument("--frames", type=int, default=150, help="of each (default: 150)")
    parser.add_argument("--seed", type=int, default=1)
    options = parser.parse_args()
    pictures = portraits(options.data)
    if not pictures:
        parser.error(f"{options.data}: no picture with one large face")
    places = [resource(name) for name in ("cockatoo.mp4", "realshort.mp4")]
    random = numpy.random.default_rng(options.seed)
    counts = {mode: Count() for mode in MODES}
    with tempfile.TemporaryDirectory(prefix="tavro-leaks-") as folder:
        clip = folder + "/clip.mkv"
        for number in range(options.videos):
            video = Video(random, people_for(random, pictures),
                          background(places[number % len(places)], options.frames))
            video.write(clip)
            for mode, arguments in MODES.items():
                print(f"video {number + 1} of {options.videos}: {mode}", file=sys.stderr)
                pictures_hidden = hidden_alone(options.program, clip, options.frames) \
                    if arguments is None else hidden_by(options.program, clip, arguments)
                for frame in zip(video.truths, video.frames, pictures_hidden, strict=True):
                    counts[mode].add(*frame)
    some = next(iter(counts.values()))
    print(f"{some.all.sum()} face-frames; by the face's height: below {BUCKETS[0]} pixels "
          f"{some.all[0]}, below {BUCKETS[1]} {some.all[1]}, others {some.all[2]}. In percent:\n")
    print("| | leaks | small | middle | large | hidden of the picture |\n"
          "| --- | ---: | ---: | ---: | ---: | ---: |")
    for mode, count in counts.items():
        print("|", " | ".join([mode, *count.row()]), "|")


if __name__ == "__main__":
    main()
