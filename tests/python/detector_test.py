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


def first_faces(frame, size=None):
    return tavrofd.Detector().detect(frame, size).tolist()


class Frames(unittest.TestCase):
    def test_every_form_of_a_picture_gives_the_faces_of_the_example_host(self):
        text = subprocess.run([os.environ["TAVRO_EXAMPLE"], tavrofd.module_file(),
                               os.environ["TAVRO_PICTURE"], str(WIDTH), str(HEIGHT)],
                              check=True, capture_output=True, text=True).stdout
        line, = re.findall(r"^frame 0: (.*)$", text, re.MULTILINE)
        expected = [[int(corner) for corner in face.split(",")]
                    for face in re.findall(r"\(([^)]*)\)", line)]
        self.assertEqual(len(expected), 1)
        forms = {
            "stacked": (STACKED,), "planes": (PLANES,), "list": (list(PLANES),),
            "planes with gaps": (tuple(padded(plane) for plane in PLANES),),
            "bytes": (SAMPLES, (WIDTH, HEIGHT)), "bytearray": (bytearray(SAMPLES), (WIDTH, HEIGHT)),
            "view": (memoryview(SAMPLES), (WIDTH, HEIGHT)),
        }
        for name, arguments in forms.items():
            with self.subTest(name):
                self.assertEqual(first_faces(*arguments), expected)
        bgr = bgr_of(PLANES)
        self.assertLess(np.abs(np.subtract(first_faces(bgr), expected)).max(), 3)
        self.assertEqual(first_faces(padded(bgr)), first_faces(bgr))

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
                self.assertEqual(first_faces(flat, (width, height)), faces)
                bgr = bgr_of(planes)
                self.assertEqual(first_faces(padded(bgr)), first_faces(bgr))

    def test_the_result_is_an_array_even_without_faces(self):
        found = tavrofd.Detector().detect(np.full((90, 60), 128, np.uint8))
        self.assertEqual((found.shape, found.dtype), ((0, 4), np.int32))

    def test_reset_forgets_the_faces(self):
        moved = np.roll(STACKED[:HEIGHT], 3, axis=1), *PLANES[1:]
        detector = tavrofd.Detector()
        detector.detect(STACKED)
        followed = detector.detect(moved).tolist()
        detector.reset()
        self.assertEqual(detector.detect(moved).tolist(), first_faces(moved))
        self.assertNotEqual(followed, first_faces(moved))


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
            tavrofd.Detector(roi=[(WIDTH, 0, 90, 90)]).detect(STACKED)


class Refusals(unittest.TestCase):
    def test_what_is_no_frame_is_told_by_its_fault(self):
        y, u, v = PLANES
        size = (WIDTH, HEIGHT)
        bgr = np.zeros((HEIGHT, WIDTH, 3), np.uint8)
        cases = [
            (TypeError, "not of int", 1, None),
            (TypeError, "not of NoneType", (y, None, v), None),
            (TypeError, "uint8", STACKED.astype(np.float32), None),
            (TypeError, "uint8", STACKED > 0, None),
            (TypeError, "incompatible", SAMPLES, "160x120"),
            (ValueError, "shape .* not \\(28800\\)", SAMPLES, None),
            (ValueError, "28800 bytes .* not \\(28799\\)", SAMPLES[1:], size),
            (ValueError, "28800 bytes", STACKED, size),
            (ValueError, "0 by 120", b"", (0, HEIGHT)),
            (ValueError, "1 to 32768", SAMPLES, (-WIDTH, -HEIGHT)),
            (ValueError, "1 to 32768", np.zeros((3, 32770), np.uint8), None),
            (ValueError, "160 by 0", STACKED[:0], None),
            (ValueError, "even size", STACKED[:HEIGHT + 1], None),
            (ValueError, "even size", STACKED[:, :WIDTH - 1], None),
            (ValueError, "gaps", padded(STACKED), None),
            (ValueError, "side by side", STACKED[:, ::2], None),
            (ValueError, "rows must follow", STACKED[::-1], None),
            (ValueError, "side by side", bgr[:, :, ::-1], None),
            (ValueError, "side by side", bgr[:, ::-1], None),
            (ValueError, "rows must follow", bgr[::-1], None),
            (ValueError, "\\(height, width, 3\\)", np.zeros((4, 4, 4), np.uint8), None),
            (ValueError, "not \\(\\)", np.uint8(1).reshape(()), None),
            (ValueError, "three planes, not 2", (y, u), None),
            (ValueError, "plane 1 .* \\(60, 80\\), not \\(60, 79\\)", (y, u[:, 1:], v), None),
            (ValueError, "two dimensions", (y, u.reshape(-1), v), None),
            (ValueError, "same number of bytes", (y, padded(u), v), None),
        ]
        detector = tavrofd.Detector()
        for error, message, frame, shape in cases:
            with self.subTest(message, frame=type(frame)), self.assertRaisesRegex(error, message):
                detector.detect(frame, shape)
        self.assertEqual(detector.detect(STACKED).tolist(), first_faces(STACKED))

    def test_modules_that_are_none(self):
        with self.assertRaisesRegex(RuntimeError, "absent"):
            tavrofd.Detector("/absent/module.so")
        with self.assertRaises(RuntimeError):
            tavrofd.Detector(pathlib.Path(__file__))
        tavrofd.Detector(tavrofd.module_file())  # the real one, by a name of its own


class Threads(unittest.TestCase):
    def test_detectors_run_side_by_side_and_one_serves_many_threads(self):
        shared = tavrofd.Detector()
        expected = first_faces(STACKED)
        found = []

        def work(detector):
            found.extend(detector.detect(STACKED).tolist() for _ in range(20))

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
                detector.detect(STACKED)
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
            detector = tavrofd.Detector()
            detector.detect(frame[:3])
            peak = lambda: resource.getrusage(resource.RUSAGE_SELF).ru_maxrss
            before = peak()
            detector.detect(frame)
            print("grown", peak() - before)
            detector.reset()
            detector.detect(frame)
            tavrofd.Detector(smallest_face=20).detect(frame[:30])"""
        done = subprocess.run([sys.executable, "-c", measure], check=True, capture_output=True,
                              text=True)
        grown, kibibytes = done.stdout.split()  # and nothing that the module says
        self.assertLess(int(kibibytes), 8 * 1024)  # the frame has 96 MiB
        self.assertEqual((grown, done.stderr.count("Warmup")), ("grown", 1))

    def test_the_stub_has_what_the_module_has(self):
        package = pathlib.Path(tavrofd.__file__).parent
        self.assertTrue((package / "py.typed").is_file())
        stub, = (node for node in ast.parse((package / "_native.pyi").read_text()).body
                 if isinstance(node, ast.ClassDef))
        functions = {node.name: [argument.arg for argument in node.args.args]
                     for node in stub.body}
        native = tavrofd.Detector.__mro__[1]
        public = {name for name in vars(native) if not name.startswith("_")}
        self.assertEqual(set(functions) - {"__init__"}, public)
        for name, arguments in functions.items():
            signature = inspect.getdoc(getattr(native, name)).splitlines()[0]
            self.assertEqual(re.findall(r"(\w+):", signature), arguments)


if __name__ == "__main__":
    unittest.main()
