"""The GStreamer element between two pads of the test and in whole pipelines. It must find what
tavro-fd finds in the same pictures.

    element_test.py TAVRO_FD --modules FILE [CLASS[.TEST]...]

TAVRO_MODULE and TAVRO_CORE name the real module and the host's core library, element.py tells what
else is needed. FILE is one of the fake modules.
"""

import csv
import ctypes
import os
import re
import shutil
import subprocess
import time

import numpy as np

from application import MODULES, ApplicationTest, main, plain, y4m
from element import (FRAME_TIME, PICTURE, Element, Gst, GstVideo, buffer_of, bytes_of, distant,
                     faces_on, hidden_part, outlined, portrait, rows_of)

SEARCH = "tavrofacedetect messages=every-frame ! fakesink"


class ElementTest(ApplicationTest):
    def found(self, file, stdin=b"", options=()):
        """What tavro-fd finds in each picture: the corners within it, by the faces' numbers."""
        outcome = self.execute(file, "--format", "csv", *options, stdin=stdin)
        self.assertEqual(outcome.code, 0, outcome.errors)
        pictures = {}
        for row in csv.reader(outcome.output.decode().splitlines()[1:]):
            width, height, number, *corners = (int(word or 0) for word in row[2:9])
            faces = pictures.setdefault(int(row[0]), {})
            if number:
                faces[number] = (*(max(corner, 0) for corner in corners[:2]),
                                 min(corners[2], width), min(corners[3], height))
        return list(pictures.values())

    def searched(self, *frames, options=()):
        """The same without the numbers."""
        return [list(faces.values()) for faces in self.found("-", y4m(frames), options)]


class Pads(ElementTest):
    def test_it_adds_the_faces_and_leaves_the_picture_alone(self):
        found = 0
        for form, width, height, *padding in (
                ("I420", 640, 480), ("NV12", 640, 480), ("I420", 641, 361, 5),
                ("NV12", 641, 361, 5), ("I420", 333, 500, 16, 24), ("NV12", 1279, 719),
                ("I420", 1280, 720, 128), ("NV12", 96, 97, 1), ("I420", 1, 1), ("NV12", 1, 1),
                ("I420", 2, 301, 3, 1), ("NV12", 301, 2, 3)):
            frames = [portrait(width, height, i * width // 40) for i in range(4)]
            with self.subTest(form, size=(width, height)), Element(width, height, form) as element:
                for frame, faces in zip(frames, self.searched(*frames)):
                    buffer = buffer_of(frame, form, *padding)
                    before = bytes_of(buffer)
                    passed = element.put(buffer)
                    self.assertEqual(passed.peek_memory(0), buffer.peek_memory(0))
                    self.assertEqual(bytes_of(passed), before)
                    self.assertEqual(list(faces_on(passed).values()), faces)
                    found += len(faces)
                self.assertEqual(element.element.get_property("frames"), 4)
        self.assertGreaterEqual(found, 4 * 6)  # the portrait in the larger pictures

    def test_memory_that_others_hold_is_shared_until_it_draws_or_hides(self):
        for form, width, height, *padding in (("NV12", 320, 240, 7), ("I420", 321, 241, 3, 2)):
            frame = portrait(width, height)
            for options in ({}, {"draw": "true"}, {"hide": "none"}, {"hide": "pixelate"},
                            {"hide": "blur"}, {"hide": "solid"},
                            {"hide": "solid", "hide_margin": "40"},
                            {"hide": "solid", "hide_margin": "0", "hide_shape": "ellipse"}):
                with self.subTest(form, **options), \
                        Element(width, height, form, **options) as element:
                    held = buffer_of(frame, form, *padding)
                    before = bytes_of(held)
                    passed = element.put(held)
                    face, = faces_on(passed).values()
                    self.assertEqual((faces_on(held), bytes_of(held)), ({}, before))
                    hide = options.get("hide", "none")
                    changes = hide != "none" or "draw" in options
                    self.assertEqual(passed.peek_memory(0) == held.peek_memory(0), not changes)
                    expected = outlined(frame, face) if "draw" in options else frame
                    meta = GstVideo.buffer_get_video_meta(passed)
                    content = np.frombuffer(bytes_of(passed), np.uint8)
                    for plane, rows in enumerate(rows_of(expected, form)):
                        start, stride = meta.offset[plane], meta.stride[plane]
                        drawn = content[start:start + len(rows) * stride].reshape(-1, stride)
                        drawn = drawn[:, :rows.shape[1]]
                        if hide != "none":
                            part = hidden_part(face, plane, form,
                                               int(options.get("hide_margin", 25)))
                            colours = len(np.unique(drawn[part]))
                            limits = {"pixelate": (6, 36), "blur": (37, 200), "solid": (1, 1)}[hide]
                            if plane == 0 or hide == "solid":
                                self.assertTrue(limits[0] <= colours <= limits[1], colours)
                            rows = rows.copy()
                            rows[part] = drawn[part]
                        # An ellipse reaches beyond its rectangle.
                        self.assertEqual((drawn == rows).all(), "hide_shape" not in options, plane)

    def test_faces_stay_hidden_for_a_third_of_a_second(self):
        nothing = plain(160, 120)
        with Element(hide="solid") as element:
            frames = [nothing, portrait(), *[nothing] * 12]
            changed = [bytes_of(element.put(buffer_of(frame))) != b"".join(rows.tobytes()
                       for rows in rows_of(frame, "I420")) for frame in frames]
            self.assertEqual(changed, [False] + [True] * 9 + [False] * 4)

    def test_it_starts_over_with_a_new_size_a_flush_and_a_new_stream(self):
        first = portrait(640, 480)
        # Near enough to be held where it was, if the face were followed.
        moved, smaller = portrait(640, 480, 6), portrait(321, 201, 9)
        followed, (fresh,) = self.searched(first, moved)[1], self.searched(moved)
        self.assertNotEqual(followed, fresh)
        for change in ("nothing", "format", "size", "stream", "flush"):
            with self.subTest(change), Element(640, 480) as element:
                before = element.faces_in(first)
                if change == "flush":
                    element.feed.push_event(Gst.Event.new_flush_start())
                    element.feed.push_event(Gst.Event.new_flush_stop(True))
                    element.begin()
                elif change == "stream":
                    element.feed.push_event(Gst.Event.new_stream_start("another"))
                elif change == "size":
                    element.announce(321, 201, "NV12")
                    self.assertEqual([element.rectangles_in(smaller)], self.searched(smaller))
                    element.announce(640, 480)
                elif change == "format":
                    element.announce(640, 480, "NV12")
                is_followed = change in ("nothing", "format")
                after = element.faces_in(moved)
                self.assertEqual(list(after.values()), followed if is_followed else fresh)
                self.assertEqual(after.keys() == before.keys(), is_followed)

    def test_messages_follow_their_policy_and_tell_the_faces_of_their_buffer(self):
        nothing, face = plain(160, 120), portrait()
        # Nothing, comes, stays, moves, is another one, is gone, stays away.
        stream = (nothing, face, face, portrait(shift=2), portrait(shift=70), nothing, nothing)
        for policy, expected in (("none", []), ("on-change", [1, 4, 5]),
                                 ("every-frame", list(range(7)))):
            with self.subTest(policy), Element(messages=policy) as element:
                found = [element.faces_in(frame) for frame in stream]
                told = element.messages()
                self.assertEqual([message.get_uint64("frame")[1] for message in told], expected)
                self.assertEqual(element.element.get_property("faces"), 4)
                self.assertGreater(element.element.get_property("milliseconds"), 0)
        (number, (left, top, right, bottom)), = found[1].items()
        structure = Gst.Structure.from_string(
            "tavro-faces, frame=(guint64)1, timestamp=(guint64)40000000, "
            "stream-time=(guint64)40000000, running-time=(guint64)40000000, "
            "duration=(guint64)40000000, width=(int)160, height=(int)120, "
            f"faces=(structure){{ [face, id=(int){number}, x=(uint){left}, y=(uint){top}, "
            f"width=(uint){right - left}, height=(uint){bottom - top}] }};")[0]
        self.assertTrue(told[1].is_equal(structure), told[1].to_string())

    def test_one_picture_of_several_is_searched(self):
        frames = [portrait(640, 480, 40 * i) for i in range(8)]
        expected = self.searched(*frames[::3])
        with Element(640, 480, every_n_frames="3") as element:
            for i, frame in enumerate(frames):
                self.assertEqual(element.rectangles_in(frame), expected[i // 3], i)
            self.assertEqual(element.element.get_property("frames"), 3)

    def test_pictures_that_come_too_late_are_left_out(self):
        for skips in (True, False):
            with self.subTest(skips), Element(skip_late=str(skips)) as element:
                # Searched: the first of all, and one after ten that were left out.
                searched = 3 if skips else 24
                for jitter, count in ((FRAME_TIME * 1000, 24), (-1, 2)):
                    element.drain.push_event(Gst.Event.new_qos(
                        Gst.QOSType.UNDERFLOW, 1.0, jitter, FRAME_TIME))
                    for _ in range(count):
                        self.assertEqual(len(element.faces_in(portrait())), 1)
                    self.assertEqual(element.element.get_property("late-frames"), 24 - searched)
                self.assertEqual(element.element.get_property("frames"), searched + 2)

    def test_what_is_no_picture_is_an_error_and_refused_ones_are_one_warning(self):
        with Element(module=MODULES.replace("fake_good", "fake_refusing"), hide="solid") as element:
            for _ in range(3):
                passed = element.put(buffer_of(portrait()))
                self.assertEqual((faces_on(passed), bytes_of(passed)),
                                 ({}, b"\x10" * 19200 + b"\x80" * 9600))
            self.assertIsNone(element.put(Gst.Buffer.new_allocate(None, 160 * 120, None)))
            self.assertEqual(element.result, Gst.FlowReturn.ERROR)
            kinds = [message.type for message in iter(element.bus.pop, None)]
            for kind in (Gst.MessageType.WARNING, Gst.MessageType.ERROR):
                self.assertEqual(kinds.count(kind), 1)

    def test_small_faces_are_seen_through_windows(self):
        frames = [distant(left) for left in (560, 566, 20)]
        self.assertEqual(self.searched(*frames), [[], [], []])
        for count, given, options in (
                (1, {"smallest_face": "20"}, ["--smallest-face", 20]),
                (0, {"smallest_face": "20", "max_windows": "9", "threads": "3"},
                 ["--smallest-face", 20, "--max-windows", 9]),
                (1, {"roi": "480,340,220,220;0,340,200,220"},
                 ["--roi", "480,340,220,220", "--roi", "0,340,200,220"])):
            with self.subTest(given), Element(800, 600, "NV12", **given) as element:
                expected = self.searched(*frames, options=options)
                self.assertEqual(list(map(len, expected[:2])), [count] * 2)
                self.assertEqual([element.rectangles_in(frame) for frame in frames], expected)
                element.announce(640, 480)
                self.assertEqual([element.rectangles_in(portrait(640, 480))],
                                 self.searched(portrait(640, 480), options=options))

    def test_windows_without_memory_are_warned_of_once(self):
        for name, fake in (("two.so", "fake_painted"), ("two_square.so", "fake_poor")):
            shutil.copy(MODULES.replace("fake_good", fake), self.path(name))
        frame = plain(160, 120)
        frame.planes[0][:160 * 60] = bytes([200]) * (160 * 60)
        with Element(module=self.path("two.so"), smallest_face="6") as element:
            for _ in range(3):
                self.assertEqual(element.rectangles_in(frame), [(0, 0, 160, 60)])
            warning, = (message.parse_warning()[0].message for message in iter(element.bus.pop, None)
                        if message.type == Gst.MessageType.WARNING)
            self.assertIn("module 'poor' had no memory", warning)

    def test_what_is_wrong_with_the_module_is_said(self):
        element, bus = Gst.ElementFactory.make("tavrofacedetect"), Gst.Bus()
        element.set_bus(bus)
        unusable = Gst.LibraryError.quark(), Gst.LibraryError.INIT
        for file, domain, code, text, *roi in (
                (None, Gst.LibraryError.quark(), Gst.LibraryError.SETTINGS, "0,0,9,9;1", "0,0,9,9;1"),
                ("/nowhere/module.so", Gst.ResourceError.quark(), Gst.ResourceError.NOT_FOUND,
                 "/nowhere"),
                (PICTURE, *unusable, "can't be used"),
                (MODULES.replace("fake_good", "fake_silent"), *unusable, "can't be used"),
                (MODULES.replace("fake_good", "fake_unready"), *unusable, "can't be prepared")):
            with self.subTest(file):
                element.set_property("module", file)
                element.set_property("roi", roi[0] if roi else None)
                self.assertEqual(element.set_state(Gst.State.PAUSED),
                                 Gst.StateChangeReturn.FAILURE)
                error, _ = bus.pop_filtered(Gst.MessageType.ERROR).parse_error()
                self.assertTrue(error.matches(domain, code), error)
                self.assertIn(text, error.message)
                element.set_state(Gst.State.NULL)
        element.set_property("module", None)  # and it works again
        self.assertNotEqual(element.set_state(Gst.State.PAUSED), Gst.StateChangeReturn.FAILURE)
        element.set_state(Gst.State.NULL)
        element.set_bus(None)

    def test_a_module_that_the_application_has_loaded_is_used(self):
        core = ctypes.CDLL(os.environ["TAVRO_CORE"])
        core.tavro_host_error.restype = ctypes.c_char_p
        name = ctypes.create_string_buffer(80)
        # It isn't loaded now: the elements of the other tests have left none behind.
        self.assertEqual(core.tavro_host_load(os.environ["TAVRO_MODULE"].encode(), name, 80), 0,
                         core.tavro_host_error())
        with Element() as first, Element() as second:
            self.assertEqual(core.tavro_host_unload(name), -1)
            self.assertIn(b"2 live instances", core.tavro_host_error())
            for element in (first, second):
                self.assertEqual(len(element.faces_in(portrait())), 1)
        self.assertEqual(core.tavro_host_unload(name), 0, core.tavro_host_error())


class Pipelines(ElementTest):
    def clip(self, width, height):
        return self.file("clip.y4m", y4m([portrait(width, height, 6 * i) for i in range(12)]))

    def launch(self, pipeline):
        """What gst-launch-1.0 prints. All that it was given must be released in the end."""
        traced = {**os.environ, "GST_TRACERS": "leaks", "GST_DEBUG": "GST_TRACER:7"}
        done = subprocess.run(["gst-launch-1.0", "-m", *pipeline.split()], check=True, timeout=300,
                              cwd=self.folder, env=traced, capture_output=True, text=True)
        self.assertNotRegex(done.stderr, r"object-alive, type-name=\(string\)\w")
        return done.stdout

    def expect_the_faces_of_the_application(self, file, pipeline, searches=1):
        """For each of the pipeline's elements."""
        expected = [(frame, number, left, top, right - left, bottom - top)
                    for frame, faces in enumerate(self.found(file))
                    for number, (left, top, right, bottom) in faces.items()]
        self.assertEqual(len(expected), 12)
        found = []
        for line in self.launch(pipeline).splitlines():
            if "tavro-faces" in line:
                frame, = re.findall(r"frame=\(guint64\)(\d+)", line)
                values = re.findall(r"(?:id|x|y|width|height)\\=\\\(u?int\\\)(\d+)", line)
                found.append((int(frame), *map(int, values)))
        self.assertEqual(sorted(found), sorted(expected * searches))

    def expect_the_end(self, pipeline):
        end = pipeline.get_bus().timed_pop_filtered(
            60 * Gst.SECOND, Gst.MessageType.EOS | Gst.MessageType.ERROR)
        self.assertEqual(end and end.type, Gst.MessageType.EOS)
        pipeline.set_state(Gst.State.NULL)

    def test_faces_in_files(self):
        for size in ((159, 119), (160, 120)):
            self.expect_the_faces_of_the_application(
                self.clip(*size), f"filesrc location=clip.y4m ! y4mdec ! {SEARCH}")
        self.launch("filesrc location=clip.y4m ! y4mdec ! openh264enc ! h264parse ! mp4mux ! "
                    "filesink location=clip.mp4")
        self.expect_the_faces_of_the_application(
            "clip.mp4", f"filesrc location=clip.mp4 ! qtdemux ! h264parse ! avdec_h264 ! {SEARCH}")
        self.expect_the_faces_of_the_application(
            "clip.mp4", "filesrc location=clip.mp4 ! decodebin ! videoconvert ! "
            f"video/x-raw,format=NV12 ! {SEARCH}")

    def test_the_standard_output_is_left_to_the_pipeline(self):
        pipeline = (f"filesrc location={self.clip(160, 120)} ! y4mdec ! "
                    "tavrofacedetect smallest-face=9 ! fdsink")
        pictures = subprocess.check_output(["gst-launch-1.0", "-q", *pipeline.split()])
        self.assertEqual(len(pictures), 12 * 160 * 120 * 3 // 2)

    def test_two_elements_side_by_side_one_of_which_draws(self):
        self.expect_the_faces_of_the_application(
            self.clip(160, 120), "filesrc location=clip.y4m ! y4mdec ! tee name=t "
            f"t. ! queue ! {SEARCH} t. ! queue ! tavrofacedetect draw=true messages=every-frame ! "
            "tavrofacedetect messages=none ! fakesink", searches=2)

    def test_a_buffer_that_nobody_else_holds_is_passed_on_itself(self):
        pipeline = Gst.parse_launch(
            f"filesrc location={self.clip(160, 120)} ! y4mdec ! tavrofacedetect name=faces ! "
            "fakesink")
        seen = {"sink": [], "src": []}
        for name, buffers in seen.items():
            pipeline.get_by_name("faces").get_static_pad(name).add_probe(
                Gst.PadProbeType.BUFFER, lambda _, info, buffers=buffers: (
                    buffers.append(str(info.get_buffer()).rsplit(" at ")[-1]),
                    Gst.PadProbeReturn.OK)[1])
        pipeline.set_state(Gst.State.PLAYING)
        self.expect_the_end(pipeline)
        self.assertEqual(len(seen["sink"]), 12)
        self.assertEqual(seen["sink"], seen["src"])

    def test_any_order_of_states_and_seeks_is_survived(self):
        clip = b"".join(portrait(shift=7 * i).samples() for i in range(50))
        pipeline = Gst.parse_launch(
            f"filesrc location={self.file('clip', clip)} ! "
            "rawvideoparse width=160 height=120 ! tee name=t"
            " t. ! queue ! tavrofacedetect name=faces ! fakesink sync=true"
            " t. ! queue ! tavrofacedetect draw=true ! fakesink async=false")
        faces = pipeline.get_by_name("faces")
        for _ in range(80):
            action = self.random.randrange(10)
            if action < 6:
                pipeline.set_state(Gst.State(self.random.randint(1, 4)))
            elif action < 8:
                pipeline.seek_simple(Gst.Format.TIME, Gst.SeekFlags.FLUSH | Gst.SeekFlags.KEY_UNIT,
                                     self.random.randint(0, 1500) * Gst.MSECOND)
            else:
                faces.set_property("draw", self.random.random() < 0.5)
                faces.set_property("every-n-frames", self.random.randint(1, 4))
            time.sleep(self.random.random() / 120)
        pipeline.set_state(Gst.State.NULL)
        pipeline.set_state(Gst.State.PLAYING)
        self.expect_the_end(pipeline)
        self.assertGreater(faces.get_property("faces"), 0)


if __name__ == "__main__":
    Gst.init(None)
    main()
