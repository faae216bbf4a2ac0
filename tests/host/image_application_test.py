"""tavro-image from the outside: what it converts and to which bytes, what scaling and cropping are
asked for, PNG as FFmpeg sees it, and how it says no."""

import os
import pathlib
import shutil
import unittest

from application import ApplicationTest, ffmpeg, main

# An odd picture: the last chroma column and row have half the samples of the others.
WIDTH, HEIGHT, SIZE = 13, 7, "13x7"

PACKED = {"bgr24": "BGR", "rgb24": "RGB", "bgra32": "BGRA", "rgba32": "RGBA", "argb32": "ARGB",
          "abgr32": "ABGR"}  # the bytes of a pixel
TARGETS = {
    "bgr24": {"bgra32", "rgba32", "luma", "i420"},
    "rgb24": {"rgba32", "bgra32", "luma", "i420"},
    "bgra32": {"bgr24", "luma", "i420"},
    "rgba32": {"rgb24", "luma", "i420"},
    "argb32": {"i420"},
    "abgr32": {"i420"},
    "i420": {"bgr24", "rgb24", "bgra32", "rgba32", "abgr32", "argb32", "nv21", "nv12"},
    "nv12": {"i420"},
    "nv21": {"i420"},
    "luma": set(),
}

# Blocks of 2 by 2 pixels of one colour, so that no chroma mean mixes two.
RGB = ((255, 255, 255, 7), (0, 0, 0, 0), (255, 0, 0, 255), (0, 255, 0, 128), (0, 0, 255, 254),
       (17, 130, 201, 99))
YUV = ((16, 128, 128), (235, 128, 128), (128, 128, 128), (81, 90, 240), (145, 54, 34),
       (41, 240, 110), (255, 255, 255), (0, 0, 0))


def block_colour(name, x, y):
    colours = RGB if name in PACKED else YUV
    return colours[(x // 2 + 3 * (y // 2)) % len(colours)]


def encoded(name, colour_at):
    """The bytes of a picture with these colours."""
    pixels = [[colour_at(x, y) for x in range(WIDTH)] for y in range(HEIGHT)]
    if name in PACKED:
        return bytes(pixel["RGBA".index(letter)]
                     for row in pixels for pixel in row for letter in PACKED[name])
    luma = bytes(pixel[0] for row in pixels for pixel in row)
    u, v = (bytes(pixel[i] for row in pixels[::2] for pixel in row[::2]) for i in (1, 2))
    pairs = zip(u, v) if name == "nv12" else zip(v, u)
    return luma + {"luma": b"", "i420": u + v}.get(name, bytes(sum(pairs, ())))


def converted(source, target, colour):
    if source in PACKED and target not in PACKED:
        r, g, b = colour[:3]
        if (source, target) == ("rgb24", "luma"):  # alone of all by the plain form
            return ((66 * r + 129 * g + 25 * b + 0x1080) // 256, 0, 0)
        return ((33 * r + 65 * g + 13 * b) // 128 + 16, (112 * b - 74 * g - 38 * r) // 256 + 128,
                (112 * r - 94 * g - 18 * b) // 256 + 128)
    if source not in PACKED and target in PACKED:
        y, u, v = colour
        sums = (102 * v - 14216, 8696 - 25 * u - 52 * v, 128 * u - 17544)
        return (*(min(255, max(0, y * 257 * 18997 // 65536 + chroma >> 6)) for chroma in sums), 255)
    return (*colour[:3], 255) if source in PACKED else colour


def planes_of(name, width, height):
    """The size of each plane, and the bytes of a pixel."""
    if name != "i420":
        return [(width, height, len(PACKED.get(name, "Y")))]
    return [(width, height, 1), *2 * [((width + 1) // 2, (height + 1) // 2, 1)]]


def rising(plane, x, y, byte):
    """A picture whose samples are the same slope everywhere, so that any place between them has a
    value that is easily told."""
    return 14 * x + 3 * y + 9 * byte + 5 * plane


def positions(source, target, name, is_blended):
    """Where the samples lie in the source."""
    places = [(i + 0.5) * source / target - (name == "bilinear") / 2 for i in range(target)]
    if name == "bilinear" and target > source:  # from end to end
        places = [i * (source - 1) / (target - 1) for i in range(target)]
    return [min(max(place if is_blended else int(place), 0), source - 1) for place in places]


def scaled(name, part, target, interpolation):
    """The part (left, top, width, height) of the rising picture, at another size."""
    result = []
    for plane, ((width, height, size), (part_width, part_height, _)) in enumerate(
            zip(planes_of(name, *target), planes_of(name, *part[2:]))):
        left, top = ((corner + 1) // 2 if plane else corner for corner in part[:2])
        xs = positions(part_width, width, interpolation, interpolation != "nearest")
        ys = positions(part_height, height, interpolation, interpolation == "bilinear")
        result += [rising(plane, left + x, top + y, byte)
                   for y in ys for x in xs for byte in range(size)]
    return result


class ImageApplication(ApplicationTest):
    def noise(self, name, bytes_):
        content = self.random.randbytes(bytes_)
        self.file(name, content)
        return content

    def make(self, *arguments):
        """Runs it, expects success without a word, and returns what it wrote."""
        outcome = self.execute(*arguments)
        self.assertEqual((outcome.code, outcome.errors, outcome.output), (0, "", b""))
        return pathlib.Path(self.path(arguments[-1])).read_bytes()

    def test_every_pair_is_converted_by_its_formula_or_refused(self):
        for source, targets in TARGETS.items():
            self.file("in", encoded(source, lambda x, y, name=source: block_colour(name, x, y)))
            for target in TARGETS:
                with self.subTest(source, target=target):
                    words = ["convert", "--from", source, "--to", target, "--size", SIZE, "in"]
                    if target in targets:
                        expected = encoded(target, lambda x, y, names=(source, target): converted(
                            *names, block_colour(names[0], x, y)))
                        self.assertEqual(self.make(*words, "out"), expected)
                        continue
                    self.refuse(self.execute(*words, "refused"),
                                f"no operation converts {source} to {target}")
                    self.assertFalse(os.path.exists(self.path("refused")))

    def test_it_lists_what_it_does(self):
        outcome = self.execute("--list")
        self.assertEqual(outcome.code, 0)
        lines = [line.split() for line in outcome.output.decode().splitlines() if line.strip()]
        for name in (*TARGETS, "nearest", "linear", "bilinear"):
            self.assertIn(name, [words[0] for words in lines])
            self.assertEqual({words[2] for words in lines if words[:2] == [name, "to"]},
                             TARGETS.get(name, set()))

    def test_it_scales_and_crops_as_it_is_asked_to(self):
        for name in TARGETS:
            if name.startswith("nv"):
                continue
            self.file("in", bytes(
                rising(plane, x, y, byte)
                for plane, (width, height, size) in enumerate(planes_of(name, WIDTH, HEIGHT))
                for y in range(height) for x in range(width) for byte in range(size)))
            for interpolation in ("nearest", "linear", "bilinear"):
                for words, part in ((["scale"], (0, 0, WIDTH, HEIGHT)),
                                    (["crop", "--rect", "3,1,9,6"], (3, 1, 9, 6))):
                    with self.subTest(name, interpolation=interpolation, part=part):
                        result = self.make(*words, "--format", name, "--filter", interpolation,
                                           "--size", SIZE, "--to-size", "20x16", "in", "out")
                        expected = scaled(name, part, (20, 16), interpolation)
                        self.assertEqual(len(result), len(expected))
                        # Fractions have 6 bits at least, and each step rounds in its own way.
                        self.assertLessEqual(max(map(lambda a, b: abs(a - b), result, expected)),
                                             0 if interpolation == "nearest" else 6)

    def test_a_crop_without_a_size_keeps_every_sample(self):
        source = self.noise("in", 147)
        u, v = WIDTH * HEIGHT, WIDTH * HEIGHT + 7 * 4

        def cut(start, stride, x, y, width, height):
            return b"".join(source[start + row * stride + x:][:width]
                            for row in range(y, y + height))

        words = ("crop", "--format", "i420", "--size", SIZE, "--rect", "4,2,9,5")
        self.assertEqual(self.make(*words, "in", "out"), cut(0, WIDTH, 4, 2, 9, 5) +
                         cut(u, 7, 2, 1, 5, 3) + cut(v, 7, 2, 1, 5, 3))
        self.file("wide", source[:64] * 512)  # the widest that planes can be
        self.assertEqual(self.make("crop", "--format", "luma", "--size", "32768x1", "--rect",
                                   "0,0,32768,1", "wide", "out"), source[:64] * 512)
        # The standard streams instead of files, and the other name of the format.
        piped = self.execute("crop", "--format", "gray", "--size", SIZE, "--rect", "5,3,8,4", "-",
                             "-", stdin=source[:u])
        self.assertEqual((piped.code, piped.output), (0, cut(0, WIDTH, 5, 3, 8, 4)))

    @unittest.skipUnless(shutil.which("ffmpeg"), "there is no ffmpeg program")
    def test_png_keeps_every_pixel_and_its_colours(self):
        for name in (*PACKED, "luma"):
            with self.subTest(name):
                letters = PACKED.get(name, "Y")
                source = self.noise("in", WIDTH * HEIGHT * len(letters))
                words = ("crop", "--format", name, "--rect", "0,0,13,7")
                self.make(*words, "--size", SIZE, "in", "out.PNG")
                wanted = "Y" if name == "luma" else "RGBA"
                pixels = ffmpeg("-i", self.path("out.PNG"), "-f", "rawvideo", "-pix_fmt",
                                "gray" if name == "luma" else "rgba", "-")
                opaque = b"\xff" * (WIDTH * HEIGHT)
                for place, letter in enumerate(wanted):
                    self.assertEqual(pixels[place::len(wanted)],
                                     source[letters.index(letter)::len(letters)]
                                     if letter in letters else opaque)
                self.assertEqual(self.make(*words, "out.PNG", "out"), source)

    def test_transparency_is_laid_over_black_where_there_is_no_alpha(self):
        self.file("in", b"\x0a\x14\x1e\xff\x0a\x14\x1e\x00")
        self.make("scale", "--format", "rgba32", "--size", "2x1", "--to-size", "2x1", "in", "a.png")
        self.assertEqual(self.make("scale", "--format", "bgr24", "--to-size", "2x1", "a.png", "out"),
                         b"\x1e\x14\x0a\x00\x00\x00")

    def test_it_refuses_with_one_line_and_writes_nothing(self):
        source = self.noise("in", 147)  # i420
        self.file("short", source[1:])
        self.file("long", source + b"x")
        self.file("wide", bytes(3 * 32768))
        png = self.make("convert", "--from", "i420", "--to", "bgr24", "--size", SIZE, "in", "ok.png")
        self.file("cut.png", png[:-30])
        self.file("no.png", source)
        convert, bgr = "convert --from i420 --to ", "convert --from i420 --to bgr24 --size "
        scale = "scale --format i420 --size 13x7 --to-size "
        crop = "crop --format i420 --size 13x7 --rect "
        for line, reason in (
                ("", "what to do is missing"), ("turn in refused", "turn"),
                (bgr + "13x7 in", "OUT"), (bgr + "13x7 --fast in refused", "--fast"),
                (convert + "rgb42 --size 13x7 in refused", "unknown format rgb42"),
                ("convert --from luma --to i420 --size 13x7 in refused", "no operation"),
                (convert + "bgr24 in refused", "--size is needed"),
                (bgr + "13x in refused", "WIDTHxHEIGHT"),
                (bgr + "13x7x1 in refused", "WIDTHxHEIGHT"),
                (bgr + "0x7 in refused", "sides from 1"), (bgr + "-13x7 in refused", "13x7"),
                (bgr + "99999999999x7 in refused", "WIDTHxHEIGHT"),
                (bgr + "32767x32767 in refused", "pixels at most"),
                (bgr + "32768x8192 in refused", "in has 147 bytes"),
                (bgr + "32769x2 in refused", "sides from 1 to 32768"),
                ("scale --format rgb24 --size 32768x1 --to-size 2x2 wide refused", "less than 32768"),
                ("scale x.jpg", "not x.jpg"),
                (bgr + "13x7 short refused", "146 bytes"), (bgr + "13x7 long refused", "more bytes"),
                (bgr + "13x7 /dev/zero refused", "more bytes"),
                (bgr + "13x7 - refused", "0 bytes"), (bgr + "13x7 none refused", "No such file"),
                (bgr + "13x7 . refused", "can't read"), (bgr + "13x7 in none/x", "can't write"),
                (bgr + "13x7 in /dev/full", "No space"), (bgr + "13x7 in in", "overwritten"),
                (convert + "nv12 --size 13x7 in refused.png", "can't hold nv12"),
                (bgr + "13x7 ok.png refused", "can't hold i420"),
                (scale + "2x2 --filter cubic in refused", "unknown filter cubic"),
                (scale + "0x2 in refused", "sides from 1"),
                ("scale --format i420 --size 13x7 in refused", "--to-size"),
                ("scale --format nv12 --to-size 2x2 --size 13x7 in refused", "nv12 can't"),
                ("scale --format bgr24 --to-size 2x2 --size 13x7 ok.png refused", "size of its"),
                ("scale --format luma --to-size 2x2 ok.png refused", "has colours"),
                ("scale --format bgr24 --to-size 2x2 cut.png refused", "cut.png: "),
                ("scale --format bgr24 --to-size 2x2 no.png refused", "no.png: "),
                (crop + "1,1,3 in refused", "X,Y,WIDTH,HEIGHT"),
                (crop + "1,1,0,3 in refused", "positive sides"),
                (crop + "-1,1,3,3 in refused", "-1,1,3,3"),
                (crop + "1,1,13,3 in refused", "isn't inside"),
                (crop + "1,1,40000,3 in refused", "isn't inside"),
                (crop + "1,5,3,3 in refused", "isn't inside"),
                (crop + "1,2147483647,3,3 in refused", "isn't inside")):
            with self.subTest(line):
                self.refuse(self.execute(*line.split()), reason)
                self.assertFalse(os.path.exists(self.path("refused")))
                self.assertFalse(os.path.exists(self.path("refused.png")))
        self.assertEqual(pathlib.Path(self.path("in")).read_bytes(), source)


if __name__ == "__main__":
    main()
