"""What tavro-fd makes of the faces: its scripts are given to FFmpeg's own program, and the pictures
that come out are compared, sample by sample, with those that went in."""

import base64
import os
import pathlib
import re
import shutil
import unittest

from application import ApplicationTest, ffmpeg, from_samples, main, pictures_of, plain, y4m

WIDTH, HEIGHT = 160, 96
BACKGROUND = 60
STRIPE = 100  # every fourth row is dark, on faces and beside them
PAINT = {1: 200, 2: 230, 3: 200}  # what the fake detector takes for the first and the second face

# Faces that come, stay, move, go, and come again elsewhere, by their numbers. None begins or ends
# with a dark stripe.
STORY = [
    {},
    {1: (20, 20, 50, 60)},
    {1: (20, 20, 50, 60)},
    {1: (20, 20, 50, 60), 2: (100, 32, 140, 72)},
    {1: (26, 20, 56, 60), 2: (100, 32, 140, 72)},
    {2: (100, 32, 140, 72)},
    {2: (100, 32, 140, 72)},
    {3: (4, 72, 34, 94), 2: (102, 32, 142, 72)},
    {},
]


def box(left, top, right, bottom, grow=0):
    """The places of a rectangle's samples."""
    return {y * WIDTH + x for y in range(max(0, top - grow), min(HEIGHT, bottom + grow))
            for x in range(max(0, left - grow), min(WIDTH, right + grow))}


def painted(faces):
    frame = plain(WIDTH, HEIGHT, BACKGROUND)
    for number, face in faces.items():
        for place in box(*face):
            frame.planes[0][place] = PAINT[number]
    for y in range(2, HEIGHT, 4):
        frame.planes[0][y * WIDTH:(y + 1) * WIDTH] = bytes([STRIPE]) * WIDTH
    return frame


def lost_faces(index, rate):
    """The faces that were there within the last second and aren't now, where they were last."""
    last = {number: (i, face) for i in range(index) for number, face in STORY[i].items()}
    return [face for number, (i, face) in last.items()
            if number not in STORY[index] and (index - i) / rate <= 1]


@unittest.skipUnless(shutil.which("ffmpeg"), "there is no ffmpeg program")
class Outputs(ApplicationTest):
    frames = [painted(faces) for faces in STORY]

    def clip(self, rate="F25:1"):
        return self.file("clip.y4m", y4m(self.frames, rate + " C420jpeg"))

    def make(self, clip, *arguments):
        outcome = self.detect(clip, *arguments, module="painted")
        self.assertEqual(outcome.code, 0, outcome.errors)

    def filtered(self, clip, form):
        """For each frame its luma before and after FFmpeg has applied what tavro-fd has written."""
        script = self.path("boxes")
        self.make(clip, "--format", form, "--output", script)
        options = ["-vf", "ass=" + script] if form == "ass" else ["-filter_script:v", script]
        samples = ffmpeg("-i", clip, *options, "-fps_mode", "passthrough", "-f", "rawvideo",
                         "-pix_fmt", "yuv420p", "-")
        size = WIDTH * HEIGHT * 3 // 2
        self.assertEqual(len(samples), size * len(self.frames))
        return [(frame.planes[0], from_samples(WIDTH, HEIGHT, samples[i * size:]).planes[0])
                for i, frame in enumerate(self.frames)]

    def test_scripts_draw_the_boxes_where_and_when_they_are(self):
        for rate in ("F25:1", "F30000:1001", "F60:1"):
            for form in ("ass", "draw-filter"):
                with self.subTest(form, rate=rate):
                    for faces, (before, after) in zip(STORY, self.filtered(self.clip(rate), form)):
                        expected = set().union(*(box(*face) - box(*face, grow=-2)
                                                 for face in faces.values()))
                        drawn = {place for place, (a, b) in enumerate(zip(before, after))
                                 if abs(a - b) > 8}
                        self.assertEqual(drawn, expected)

    def test_scripts_hide_the_faces_and_those_just_lost(self):
        for rate in (25, 2):
            clip = self.clip(f"F{rate}:1")
            for index, (before, after) in enumerate(self.filtered(clip, "blur-filter")):
                with self.subTest(rate=rate, index=index):
                    hidden, inner = set(), set()
                    for face in [*STORY[index].values(), *lost_faces(index, rate)]:
                        x, y = (face[2] - face[0]) // 4, (face[3] - face[1]) // 4
                        hidden |= box(face[0] - x, face[1] - y, face[2] + x, face[3] + y)
                        inner |= box(*face, grow=-8)
                    changes = [abs(a - b) for a, b in zip(before, after)]
                    self.assertFalse({place for place, change in enumerate(changes)
                                      if place not in hidden and change > 3})
                    # Blocks that lie within a face have lost its stripes.
                    self.assertFalse({place for place in inner
                                      if before[place] == STRIPE and changes[place] < 10})

    def test_scripts_leave_a_clip_without_faces_as_it_is(self):
        self.frames = [plain(WIDTH, HEIGHT)] * 2
        for form in ("ass", "draw-filter", "blur-filter"):
            for before, after in self.filtered(self.clip(), form):
                self.assertEqual(before, after)

    def test_blur_hides_faces_for_a_third_of_a_second_before_and_after(self):
        frames = {number: [i for i, faces in enumerate(STORY) if number in faces] for number in PAINT}
        file = self.clip("F6:1")
        for clip, stdin in ((file, b""), ("-", pathlib.Path(file).read_bytes())):
            outcome = self.detect(clip, "--annotate", "hidden.mkv", "--blur", "--output", os.devnull,
                                  module="painted", stdin=stdin)
            self.assertEqual(outcome.code, 0, outcome.errors)
            pictures = pictures_of(self.path("hidden.mkv"))
            self.assertEqual(len(pictures), len(STORY))
            for index, picture in enumerate(pictures):
                def step(x, y):
                    return abs(picture.luma(x, y) - picture.luma(x, y - 2))
                hidden = set()
                for number, seen in frames.items():
                    first, last = seen[0], seen[-1]
                    if first - 2 <= index <= last + 2:
                        left, top, right, bottom = STORY[min(max(index, first), last)][number]
                        hidden |= box(left, top, right, bottom, grow=10)
                        for y in range(top // 4 * 4 + 6, bottom - 2, 4):
                            self.assertLess(step((left + right) // 2, y), 25, (clip, index, number))
                for x, y in ((35, 42), (120, 54), (19, 82), (78, 42)):
                    if y * WIDTH + x not in hidden:
                        self.assertGreater(step(x, y), 15, (clip, index, x, y))

    def test_crop_faces_writes_a_square_for_each_face(self):
        faces = self.folder / "new" / "folder"
        self.make(self.clip(), "--crop-faces", faces, "--output", os.devnull)
        expected = {"face-0001.jpg": (60, 200), "face-0002.jpg": (60, 230),
                    "face-0003.jpg": (44, 200)}
        self.assertEqual({file.name for file in faces.iterdir()}, set(expected))
        for name, (side, luma) in expected.items():
            picture, = pictures_of(faces / name)
            self.assertEqual((picture.width, picture.height), (side, side))
            self.assertAlmostEqual(max(picture.planes[0]), luma, delta=15)
        self.refuse(self.detect(self.clip(), "--crop-faces", faces), "an earlier run")

    def test_the_report_stands_alone_and_shows_every_face(self):
        video, report = self.path("<b>&\"'.y4m"), self.path("report.html")
        os.rename(self.clip(), video)
        self.make(video, "--report", report, "--output", os.devnull)
        page = pathlib.Path(report).read_text(encoding="utf-8")
        for foreign in ("://", "<script", "href", "<b>&"):
            self.assertNotIn(foreign, page)
        self.assertIn("/&lt;b&gt;&amp;&quot;&#39;.y4m</title>", page)
        jpegs = re.findall('src="data:image/jpeg;base64,([^"]*)"', page)
        self.assertEqual(len(jpegs), len(PAINT))
        for jpeg, luma in zip(jpegs, PAINT.values()):
            picture, = pictures_of(self.file("face.jpg", base64.b64decode(jpeg, validate=True)))
            self.assertAlmostEqual(max(picture.planes[0]), luma, delta=15)
        # The second face is there from 0.12 to 0.28 of the 0.36 seconds.
        second = re.findall('class="bar" style="([^"]*)"', page)[1]
        self.assertEqual(second, "left:33.33%;width:44.44%")

    def test_the_report_of_a_run_that_hides_tells_what_to_look_at_and_how_to_mend_it(self):
        def moments(*options):
            self.make(clip, "--blur", "--annotate", "h.mkv", "--report", "r.html", *options)
            page = pathlib.Path(self.path("r.html")).read_text(encoding="utf-8")
            found = re.findall("<li><b>(.*?)</b><span>(.*?)</span><code>(.*?)</code>", page)
            return [(time, what.split(".")[0], mend) for time, what, mend in found], page

        # Half a second each; the second face goes for one of them.
        self.frames = [painted(faces) for faces in [*STORY[:6], {}, STORY[7]]]
        clip = self.clip("F2:1")
        told, page = moments()
        self.assertEqual(told, [
            ("0:00.5", "Face 1 appears in mid-picture", "--hide 13,10,44,60@0.0-0.5"),
            ("0:01.5", "Face 2 appears in mid-picture", "--hide 90,22,60,60@0.5-1.5"),
            ("0:02.0", "Face 1 is lost in mid-picture", "--hide 19,10,44,60@2.0-3.334"),
            ("0:02.5", "Face 2 isn&#39;t found for 1", "--hide 90,22,62,60@2.5-3.5")])
        self.assertEqual(("<img" in page, f"<pre>tavro-fd {clip} --blur" in page), (False, True))
        # What mends a moment is taken, and then it isn't one any more.
        rest, page = moments("--report-pictures", *told[1][2].split(), *told[3][2].split(),
                             "--keep-face", 1)
        self.assertEqual(rest, [])
        self.assertEqual(page.count("<img"), 3)
        self.assertIn("None is known", page)
        rest, page = moments("--from", "2.2", "--report-pictures")
        self.assertEqual(rest, [(told[2][0], told[2][1], "--hide 19,10,44,60@2.2-3.334"), told[3]])
        self.assertEqual(page.count("<img"), 3 + 2)
        # Two that meet; the other one is small for its picture.
        self.frames[1:5] = [painted({1: (20, 20, 50, 60), 2: (44, 48, 53, 57)})] * 4
        clip = self.clip("F2:1")
        told, page = moments()
        self.assertIn(("0:00.5", "Faces 1 and 2 meet", "--hide 12,10,49,60@0.5-2.001"), told)
        self.assertIn(("0:00.5", "Face 2 has a side of 9 pixels, hardly more than what can be found",
                       "--smallest-face 8"), told)
        self.assertFalse([what for _, what, _ in moments("--smallest-face", 8)[0] if "side" in what])


if __name__ == "__main__":
    main()
