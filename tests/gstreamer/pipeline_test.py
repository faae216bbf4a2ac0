"""Whole pipelines, by gst-launch-1.0: their messages name the faces that tavro-fd finds in the same
file, with the same numbers.

    pipeline_test.py TAVRO_FD PICTURE      PICTURE: I420 of 160x120 pixels with one face
"""

import csv
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

APPLICATION, PICTURE = sys.argv[1:3]
SEARCH = "tavrofacedetect messages=every-frame ! fakesink"


def clip(width, height, count=12):
    """The picture, cut to that size, on its way to the right."""
    samples = pathlib.Path(PICTURE).read_bytes()
    file = b"YUV4MPEG2 W%d H%d F25:1\n" % (width, height)
    for shift in range(0, 6 * count, 6):
        file += b"FRAME\n"
        for start, part in ((0, 1), (19200, 2), (24000, 2)):
            stride, left = 160 // part, shift // part
            for y in range((height + part - 1) // part):
                row = samples[start + y * stride:start + (y + 1) * stride]
                file += (row[stride - left:] + row)[:(width + part - 1) // part]
    return file


class Pipelines(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="tavro-gst-")
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def launch(self, pipeline):
        return subprocess.run(["gst-launch-1.0", "-m", *pipeline.split()], check=True, timeout=300,
                              cwd=self.folder, capture_output=True, text=True).stdout

    def expect_the_faces_of_the_application(self, file, pipeline, searches=1):
        """For each of the pipeline's elements."""
        text = subprocess.run([APPLICATION, file, "--format", "csv"], check=True, cwd=self.folder,
                              capture_output=True, text=True).stdout
        expected = []
        for row in csv.DictReader(text.splitlines()):
            size = (int(row["width"]), int(row["height"])) * 2
            corners = [min(max(int(row[name]), 0), most) for name, most in
                       zip(("left", "top", "right", "bottom"), size)]
            expected.append((int(row["frame"]), int(row["face"]), *corners[:2],
                             corners[2] - corners[0], corners[3] - corners[1]))
        self.assertEqual(len(expected), 12)
        found = []
        for line in self.launch(pipeline).splitlines():
            if "tavro-faces" in line:
                frame, = re.findall(r"frame=\(guint64\)(\d+)", line)
                values = re.findall(r"(?:id|x|y|width|height)\\=\\\(u?int\\\)(\d+)", line)
                found.append((int(frame), *map(int, values)))
        self.assertEqual(sorted(found), sorted(expected * searches))

    def test_faces_in_files(self):
        for width, height in ((159, 119), (160, 120)):
            (self.folder / "clip.y4m").write_bytes(clip(width, height))
            self.expect_the_faces_of_the_application(
                "clip.y4m", f"filesrc location=clip.y4m ! y4mdec ! {SEARCH}")
        self.launch("filesrc location=clip.y4m ! y4mdec ! openh264enc ! h264parse ! mp4mux ! "
                    "filesink location=clip.mp4")
        self.expect_the_faces_of_the_application(
            "clip.mp4", f"filesrc location=clip.mp4 ! qtdemux ! h264parse ! avdec_h264 ! {SEARCH}")
        self.expect_the_faces_of_the_application(
            "clip.mp4", "filesrc location=clip.mp4 ! decodebin ! videoconvert ! "
            f"video/x-raw,format=NV12 ! {SEARCH}")

    def test_two_elements_side_by_side_one_of_which_draws(self):
        (self.folder / "clip.y4m").write_bytes(clip(160, 120))
        self.expect_the_faces_of_the_application(
            "clip.y4m", "filesrc location=clip.y4m ! y4mdec ! tee name=t "
            f"t. ! queue ! {SEARCH} t. ! queue ! tavrofacedetect draw=true messages=every-frame ! "
            "tavrofacedetect messages=none ! fakesink", searches=2)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1] + sys.argv[3:])
