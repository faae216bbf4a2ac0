#!/usr/bin/python3
"""The Python binding: what it finds beside what the example host finds, what it refuses, and that it
neither copies frames nor keeps the interpreter's lock.

The environment names the package (PYTHONPATH), the example host (TAVRO_EXAMPLE), the picture, I420 of
160x120 pixels with one face (TAVRO_PICTURE).
"""

import ast
import inspect
import os
import pathlib
import re
import subprocess
import sys
import threading
import unittest

import numpy as np
from PIL import Image

import tavrofd

WIDTH, HEIGHT = 160, 120
SAMPLES = pathlib.Path(os.environ["TAVRO_PICTURE"]).read_bytes()
STACKED = np.frombuffer(SAMPLES, np.uint8).reshape(HEIGHT * 3 // 2, WIDTH)


def planes_of(samples, width, height):
    """Y, U and V as views of flat samples."""
    chroma_width, chroma_height = (width + 1) // 2, (height + 1) // 2
    luma, u, v = np.split(samples, np.cumsum([width * height, chroma_width * chroma_height]))
    return (luma.reshape(height, width), u.reshape(chroma_height, chroma_width),
            v.reshape(chroma_height, chroma_width))


PLANES = planes_of(STACKED.reshape(-1), WIDTH, HEIGHT)


def padded(rows, gap=7):
    """The same rows in memory with gaps, filled with something else."""
    around = np.full((rows.shape[0], rows.shape[1] + gap, *rows.shape[2:]), 99, np.uint8)
    around[:, :rows.shape[1]] = rows
    return around[:, :rows.shape[1]]


def bgr_of(planes):
    """The plain formula of BT.601 in limited range."""
    y, u, v = (plane.astype(float) for plane in planes)
    u, v = (np.kron(plane, np.ones((2, 2)))[:y.shape[0], :y.shape[1]] - 128 for plane in (u, v))
    y = 1.164 * (y - 16)
    return np.stack((y + 2.018 * u, y - 0.391 * u - 0.813 * v, y + 1.596 * v),
                    axis=2).round().clip(0, 255).astype(np.uint8)


def first_faces(frame, size=None, form=None):
    return tavrofd.Detector().detect(frame, size, format=form).tolist()


class Frames(unittest.TestCase):
    def test_every_form_of_a_picture_gives_the_faces_of_the_example_host(self):
        text = subprocess.run([os.environ["TAVRO_EXAMPLE"], tavrofd.module_file(),
                               os.environ["TAVRO_PICTURE"], str(WIDTH), str(HEIGHT)],
                              check=True, capture_output=True, text=True).stdout
        line, = re.findall(r"^frame 0: (.*)$", text, re.MULTILINE)
        expected = [[int(corner) for corner in face.split(",")]
                    for face in re.findall(r"\(([^)]*)\)", line)]
        self.assertEqual(len(expected), 1)
        y, u, v = PLANES
        pairs = np.stack((u, v), axis=2)
        nv12 = np.concatenate((y, pairs.reshape(-1, WIDTH)))
        bgr = bgr_of(PLANES)
        bgra = np.concatenate((bgr, np.full_like(y, 7)[:, :, None]), axis=2)
        gray = bgr[:, :, 1].copy()
        size = WIDTH, HEIGHT
        from_bgr, from_gray = first_faces(bgr, form="bgr"), first_faces(gray, form="gray")
        self.assertLess(np.abs(np.subtract(from_bgr, expected)).max(), 3)
        self.assertLess(np.abs(np.subtract(from_gray, expected)).max(), 9)
        for faces, forms in (
                (expected, ((STACKED, None, "i420"), (PLANES,), (list(PLANES), None, "i420"),
                            ([padded(plane) for plane in PLANES],), (SAMPLES, size, "i420"),
                            (bytearray(SAMPLES), size, "i420"), (memoryview(SAMPLES), size, "i420"),
                            (nv12, None, "nv12"), (nv12.tobytes(), size, "nv12"), ((y, pairs),),
                            ((padded(y), padded(pairs.reshape(-1, WIDTH), 4)),))),
                (from_bgr, ((padded(bgr), None, "bgr"), (bgr.tobytes(), size, "bgr"),
                            (bgr[:, :, ::-1].copy(), None, "rgb"), (bgra, None, "bgra"),
                            (padded(bgra[:, :, [2, 1, 0, 3]]), None, "rgba"),
                            (Image.fromarray(bgr[:, :, ::-1]),),
                            (Image.fromarray(bgra[:, :, [2, 1, 0, 3]]), None, "rgba"))),
                (from_gray, ((padded(gray), None, "gray"), (gray.tobytes(), size),
                             (np.stack([gray] * 3, axis=2), None, "bgr"),
                             (Image.fromarray(gray),)))):
            for i, arguments in enumerate(forms):
                with self.subTest(i, form=arguments[1:]):
                    self.assertEqual(first_faces(*arguments), faces)

    def test_odd_sizes(self):
        for width, height in ((159, 119), (159, 120), (1, 1), (3, 1), (1, 2)):
            with self.subTest(width=width, height=height):
                planes = tuple(np.ascontiguousarray(plane[:rows, :columns])
                               for plane, rows, columns in zip(
                                   PLANES, (height, *[(height + 1) // 2] * 2),
                                   (width, *[(width + 1) // 2] * 2)))
                flat = b"".join(plane.tobytes() for plane in planes)
                faces = first_faces(planes)
                self.assertEqual(len(faces), int(width > 100))
                self.assertEqual(first_faces(flat, (width, height), "i420"), faces)
                y, u, v = planes
                pairs = np.stack((u, v), axis=2)
                self.assertEqual(first_faces((y, padded(pairs))), faces)
                self.assertEqual(first_faces(y.tobytes() + pairs.tobytes(), (width, height), "nv12"),
                                 faces)
                bgr = bgr_of(planes)
                self.assertEqual(first_faces(padded(bgr), form="bgr"), first_faces(
                    bgr.tobytes(), (width, height), "bgr"))

    def test_the_result_is_an_array_even_without_faces(self):
        for numbers in (False, True):
            found = tavrofd.Detector(format="gray", numbers=numbers).detect(
                np.full((90, 60), 128, np.uint8))
            self.assertEqual((found.shape, found.dtype), ((0, 4 + numbers), np.int32))

    def test_reset_forgets_the_faces(self):
        moved = np.roll(STACKED[:HEIGHT], 3, axis=1), *PLANES[1:]
        detector = tavrofd.Detector(numbers=True)
        detector.detect(PLANES)
        followed = detector.detect(moved).tolist()
        detector.reset()
        expected = [[*face, 2] for face in first_faces(moved)]
        self.assertEqual(detector.detect(moved).tolist(), expected)
        self.assertNotEqual(followed[0][:4], expected[0][:4])
        self.assertEqual(followed[0][4], 1)

    def test_a_face_keeps_its_number_for_a_second(self):
        nothing = tuple(np.full_like(plane, 128) for plane in PLANES)
        for times in ((0, 0.5, 0.9, 1.5), (0, 0.5, 1.1, 1.5), [None] * 20, [None] * 40):
            detector = tavrofd.Detector(numbers=True)
            found = [detector.detect(frame, time=time) for frame, time in zip(
                (PLANES, *[nothing] * (len(times) - 2), PLANES), times)]
            gap = times[-1] or (len(times) - 1) / 25
            self.assertEqual(found[-1][:, 4].tolist(), [1 + (gap > 1)], times)


class Windows(unittest.TestCase):
    """The portrait at 80x60 pixels, somewhere in a frame of 800x600."""

    small = tuple(np.full(rows, 128, np.uint8) for rows in ((600, 800), (300, 400), (300, 400)))
    for plane, picture, scale in zip(small, PLANES, (1, 2, 2)):
        plane[400 // scale:460 // scale, 560 // scale:640 // scale] = picture[::2, ::2]

    def test_windows_show_a_face_that_the_whole_frame_does_not(self):
        self.assertEqual(first_faces(self.small), [])
        found = []
        for options in ({"smallest_face": 20}, {"smallest_face": 20, "threads": 3},
                        {"roi": [(0, 0, 40, 40), (480, 340, 220, 220)]}):
            with self.subTest(options):
                detector = tavrofd.Detector(**options)
                faces = detector.detect(self.small).tolist()
                (left, top, right, bottom), = faces
                self.assertTrue(560 < left < right < 640 and 390 < top < bottom < 470, faces)
                detector.detect(PLANES)  # of another size
                detector.reset()
                self.assertEqual(detector.detect(self.small).tolist(), faces)
                found.append(faces)
        self.assertEqual(found[0], found[1])
        self.assertEqual(tavrofd.Detector(smallest_face=20, max_windows=1).detect(self.small).size, 0)

    def test_numbers_out_of_range_are_refused(self):
        for message, options in (("smallest face must be 0 to 32768, not -1", {"smallest_face": -1}),
                                 ("windows must be 1 to 1000, not 0", {"max_windows": 0}),
                                 ("threads must be 0 to 1000, not 1001", {"threads": 1001}),
                                 ("X,Y,W,H in pixels, not 0,0,0,9", {"roi": [(0, 0, 0, 9)]}),
                                 ("X,Y,W,H in pixels, not -2,0,9,9", {"roi": [(-2, 0, 9, 9)]})):
            with self.subTest(options), self.assertRaisesRegex(ValueError, message):
                tavrofd.Detector(**options)
        with self.assertRaisesRegex(ValueError, "no region lies in the frame"):
            tavrofd.Detector(roi=[(WIDTH, 0, 90, 90)]).detect(PLANES)


class Refusals(unittest.TestCase):
    def test_what_is_no_frame_is_told_by_its_fault(self):
        y, u, v = PLANES
        size = (WIDTH, HEIGHT)
        bgr = np.zeros((HEIGHT, WIDTH, 3), np.uint8)
        bgra = np.zeros((HEIGHT, WIDTH, 4), np.uint8)
        cases = [
            (TypeError, "not of int", 1, None, None),
            (TypeError, "not of NoneType", (y, None, v), None, None),
            (TypeError, "uint8", STACKED.astype(np.float32), None, None),
            (TypeError, "uint8", STACKED > 0, None, None),
            (TypeError, "incompatible", SAMPLES, "160x120", None),
            (ValueError, "\\(180, 160\\) may be i420, nv12, gray: .* format=", STACKED, None, None),
            (ValueError, "may be bgr, rgb:", bgr, None, None),
            (ValueError, "may be bgra, rgba:", bgra, None, None),
            (ValueError, "may be i420, nv12:", SAMPLES, size, None),
            (ValueError, "one of i420, .*, gray, not yuyv", SAMPLES, size, "yuyv"),
            (ValueError, "P: convert", Image.new("P", size), None, None),
            (ValueError, "is rgb, not bgr", Image.new("RGB", size), None, "bgr"),
            (ValueError, "3 planes are i420, not nv12", PLANES, None, "nv12"),
            (ValueError, "rgb has .* 3\\), not \\(120, 160, 4\\)", bgra, None, "rgb"),
            (ValueError, "gray has .*, not \\(120, 160, 3\\)", bgr, None, "gray"),
            (ValueError, "shape \\(28800\\); flat", SAMPLES, None, None),
            (ValueError, "28800 bytes .* not \\(28799\\)", SAMPLES[1:], size, "nv12"),
            (ValueError, "no format .*28799", SAMPLES[1:], size, None),
            (ValueError, "28800 bytes", STACKED, size, "i420"),
            (ValueError, "flat samples", np.repeat(STACKED.reshape(-1), 2)[::2], size, "i420"),
            (ValueError, "0 by 120", b"", (0, HEIGHT), None),
            (ValueError, "1 to 32768", SAMPLES, (-WIDTH, -HEIGHT), None),
            (ValueError, "1 to 32768", np.zeros((3, 32770), np.uint8), None, "i420"),
            (ValueError, "160 by 0", STACKED[:0], None, "gray"),
            (ValueError, "even size", STACKED[:HEIGHT + 1], None, "i420"),
            (ValueError, "even size", STACKED[:, :WIDTH - 1], None, "nv12"),
            (ValueError, "gaps", padded(STACKED), None, "i420"),
            (ValueError, "side by side", STACKED[:, ::2], None, "i420"),
            (ValueError, "rows must follow", STACKED[::-1], None, "gray"),
            (ValueError, "side by side", bgr[:, :, ::-1], None, "bgr"),
            (ValueError, "side by side", bgr[:, ::-1], None, "bgr"),
            (ValueError, "rows must follow", bgr[::-1], None, "bgr"),
            (ValueError, "not \\(\\)", np.uint8(1).reshape(()), None, "gray"),
            (ValueError, "nv12 two, not 1", (y,), None, None),
            (ValueError, "plane 1 .* \\(60, 80\\), not \\(60, 79\\)", (y, u[:, 1:], v), None, None),
            (ValueError, "plane 1 .* \\(60, 160\\), not \\(60, 80\\)", (y, u), None, None),
            (ValueError, "plane 1", (y, np.zeros((60, 40, 4), np.uint8)), None, None),
            (ValueError, "two dimensions", (y, u.reshape(-1), v), None, None),
            (ValueError, "same number of bytes", (y, padded(u), v), None, None),
        ]
        detector = tavrofd.Detector()
        for error, message, frame, shape, form in cases:
            with self.subTest(message, frame=type(frame)), self.assertRaisesRegex(error, message):
                detector.detect(frame, shape, format=form)
        with self.assertRaisesRegex(ValueError, "one of i420"):
            tavrofd.Detector(format="yuyv")
        self.assertEqual(detector.detect(PLANES).tolist(), first_faces(PLANES))

    def test_modules_that_are_none(self):
        with self.assertRaisesRegex(RuntimeError, "absent"):
            tavrofd.Detector("/absent/module.so")
        with self.assertRaises(RuntimeError):
            tavrofd.Detector(pathlib.Path(__file__))
        tavrofd.Detector(tavrofd.module_file())  # the real one, by a name of its own


class Threads(unittest.TestCase):
    def test_detectors_run_side_by_side_and_one_serves_many_threads(self):
        shared = tavrofd.Detector()
        expected = first_faces(PLANES)
        found = []

        def work(detector):
            found.extend(detector.detect(PLANES).tolist() for _ in range(20))

        threads = [threading.Thread(target=work, args=(detector,))
                   for detector in (shared, shared, tavrofd.Detector(), tavrofd.Detector())]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual(found, [expected] * 80)

    def test_other_threads_run_while_a_frame_is_looked_at(self):
        detector = tavrofd.Detector()
        go = threading.Event()
        ran = []
        thread = threading.Thread(target=lambda: (go.wait(), ran.append(True)))
        thread.start()
        before = sys.getswitchinterval()
        sys.setswitchinterval(1000)  # from here on a thread gets the lock only if another releases it
        try:
            go.set()
            for _ in range(500):
                detector.detect(PLANES)
                if ran:
                    break
            self.assertTrue(ran)
        finally:
            sys.setswitchinterval(before)
            thread.join()


class Package(unittest.TestCase):
    def test_a_large_frame_is_not_copied(self):
        measure = """if True:
            import numpy as np, resource, tavrofd
            frame = np.full((12288, 8192), 128, np.uint8)
            detector = tavrofd.Detector(format="i420")
            detector.detect(frame[:3])
            peak = lambda: resource.getrusage(resource.RUSAGE_SELF).ru_maxrss
            before = peak()
            detector.detect(frame)
            print("grown", peak() - before)
            detector.reset()
            detector.detect(frame)
            tavrofd.Detector(format="gray", smallest_face=20).detect(frame[:30])"""
        done = subprocess.run([sys.executable, "-c", measure], check=True, capture_output=True,
                              text=True)
        grown, kibibytes = done.stdout.split()  # and nothing that the module says
        self.assertLess(int(kibibytes), 8 * 1024)  # the frame has 96 MiB
        self.assertEqual((grown, done.stderr.count("Warmup")), ("grown", 1))

    def test_the_stub_has_what_the_module_has(self):
        package = pathlib.Path(tavrofd.__file__).parent
        self.assertTrue((package / "py.typed").is_file())
        stub, = (node for node in ast.parse((package / "_native.pyi").read_text()).body
                 if isinstance(node, ast.ClassDef) and node.name == "Detector")
        functions = {node.name: [argument.arg for argument in node.args.args + node.args.kwonlyargs]
                     for node in stub.body}
        native = tavrofd.Detector.__mro__[1]
        public = {name for name in vars(native) if not name.startswith("_")}
        self.assertEqual(set(functions) - {"__init__"}, public)
        for name, arguments in functions.items():
            signature = inspect.getdoc(getattr(native, name)).splitlines()[0]
            self.assertEqual(re.findall(r"(\w+):", signature), arguments)


if __name__ == "__main__":
    unittest.main()
