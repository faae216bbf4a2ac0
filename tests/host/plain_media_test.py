"""tavro-fd with the media that need no library: what is read and what is written, byte for byte, and
what is refused."""

import pathlib

from application import (PLANES, ApplicationTest, Frame, frames_of, main, noise, plain, raw_video,
                         y4m)


class PlainMedia(ApplicationTest):
    def test_y4m_headers_are_understood_or_refused(self):
        for header, rate in (("W32 H18 F25:1", 25),
                             ("W32 H18 F50:2 Ip A1:1 C420jpeg XYSCSS=420JPEG", 25),
                             (" C420mpeg2  H18 W32 XCOLORRANGE=LIMITED", 25),
                             ("W32 H18 F0:0 C420paldv", 25),
                             ("W32 H18 F30000:1001 C420", 30000 / 1001)):
            with self.subTest(header):
                frame = b"FRAME Ip\n" + plain(32, 18).samples()
                clip = self.file("clip", b"YUV4MPEG2 " + header.encode() + b"\n" + 2 * frame)
                results = self.succeed(2, clip)
                self.assertAlmostEqual(results[1]["time"], 1 / rate, 6)
        for head, reason in (("YUV4MPEG2 W2147483648 H1", "size"), ("YUV4MPEG2 W-4 H4", "size"),
                             ("YUV4MPEG2 W4x H4", "size"), ("YUV4MPEG2 W4", "size"),
                             ("YUV4MPEG2", "size"), ("YUV4MPEG3 W4 H4", "Y4M"),
                             ("YUV4MPEG2 W2147483647 H2147483647", "too large"),
                             ("YUV4MPEG2 W4 H4 C444", "444"),
                             ("YUV4MPEG2 W4 H4 C420p10", "420p10"),
                             ("YUV4MPEG2 W4 H4 XCOLORRANGE=FULL", "full-range"),
                             ("Y" * 5000, "Y4M"), ("\xff\xd8\xff\xe0 a JPEG", ""),
                             ("\x89PNG\r\n\x1a\n and no more", "")):
            with self.subTest(head[:40]):
                clip = self.file("clip", head.encode("latin-1") + b"\nFRAME\n" + bytes(100))
                self.refuse(self.detect(clip), reason)
        self.refuse(self.detect(self.file("empty", b"")))

    def test_raw_samples_need_a_size_and_known_options(self):
        clip = self.file("raw", noise(self.random, 7, 5).samples() * 2)
        options = raw_video("7x5", "framerate=30000/1001", "pixel_format=yuv420p")
        result = self.succeed(2, clip, *options)[1]
        self.assertEqual((result["width"], result["height"]), (7, 5))
        self.assertAlmostEqual(result["time"], 1001 / 30000, 6)
        for words in (["--input-format", "rawvideo"], raw_video("7"), raw_video("7x"), raw_video("0x5"),
                      raw_video("7x5", "framerate=0"), raw_video("7x5", "framerate=1/0"),
                      raw_video("7x5", "pixel_format=nv12"), raw_video("7x5", "other=1"),
                      ["--input-format", "matroska"], ["--input-option", "video_size=7x5"]):
            with self.subTest(words):
                self.refuse(self.detect(clip, *words))

    def test_cut_off_streams_give_their_whole_frames(self):
        frame = b"FRAME\n" + plain(2, 2).samples()
        for rest, count, code in ((frame + frame, 2, 0), (frame + frame[:11], 1, 1),
                                  (frame + b"FRA", 1, 1), (frame + b"FRAME\n", 1, 1),
                                  (frame + b"NOISE\n" + frame, 1, 1), (b"", 0, 2),
                                  (frame + b"FRAME " + b"x" * 5000, 1, 1)):
            with self.subTest(rest[:60]):
                outcome = self.detect(self.file("clip", b"YUV4MPEG2 W2 H2 F25:1\n" + rest))
                self.assertEqual((len(outcome.results()), outcome.code), (count, code))

    def test_pictures_survive_the_file(self):
        # Smooth, since chroma is shared by four pixels and goes through RGB.
        for width, height in ((1, 1), (34, 26), (63, 31)):
            with self.subTest(width=width, height=height):
                frame = Frame(width, height, [])
                for plane in PLANES:
                    columns, rows = frame.plane_size(plane)
                    frame.planes.append(bytes(110 + plane * 5 + x // 4 if plane else 60 + x + y
                                              for y in range(rows) for x in range(columns)))
                clip = self.file("clip.y4m", y4m([frame]))
                picture, back = self.path("picture.png"), self.path("back.y4m")
                self.succeed(1, clip, "--annotate", picture, module="painted")
                self.succeed(1, picture, "--annotate", back, module="painted")
                after, = frames_of(pathlib.Path(back).read_bytes())
                self.assertEqual((after.width, after.height), (width, height))
                self.assertLessEqual(
                    max(abs(a - b) for a, b in zip(frame.samples(), after.samples())), 4)

    def test_damaged_pictures_never_crash_it(self):
        picture = self.path("whole.png")
        clip = self.file("clip.y4m", y4m([noise(self.random, 40, 30)]))
        self.succeed(1, clip, "--annotate", picture)
        whole = pathlib.Path(picture).read_bytes()
        for hits in range(40):
            content = bytearray(whole)
            for _ in range(hits // 2):
                content[self.random.randrange(len(content))] = self.random.randrange(256)
            if hits % 2:
                del content[self.random.randrange(len(content)):]
            outcome = self.detect(self.file("damaged.png", content), "--input-format", "png")
            self.assertEqual((outcome.code, len(outcome.results())),
                             (0, 1) if outcome.output else (2, 0), outcome.errors)

    def test_streams_written_are_read_again(self):
        frames = [noise(self.random, 33, 17) for _ in range(2)]
        for frame in frames:
            frame.planes[0] = bytes(sample & 127 for sample in frame.planes[0])  # no paint in it
        stream = y4m(frames, "F30000:1001 C420jpeg")
        copy = self.path("copy.y4m")
        self.succeed(2, self.file("clip.y4m", stream), "--annotate", copy, module="painted")
        self.assertEqual(pathlib.Path(copy).read_bytes(), stream)

    def test_hiding_covers_what_it_must_and_touches_nothing_else(self):
        # Two faces that stand still, at six frames a second: hidden two frames before and after.
        faces = {1: ((20, 20, 50, 60), 3, 6, 200), 2: ((100, 33, 141, 72), 4, 12, 230)}
        frames = []
        for index in range(18):
            frame = noise(self.random, 161, 97)
            frame.planes = [bytearray(sample & 127 for sample in plane) for plane in frame.planes]
            for (left, top, right, bottom), first, last, luma in faces.values():
                for y in range(top, bottom) if first <= index <= last else ():
                    frame.planes[0][y * 161 + left:y * 161 + right] = bytes([luma]) * (right - left)
            frames.append(frame)
        clip = self.file("clip.y4m", y4m(frames, "F6:1 C420jpeg"))

        def paint(rows, plane, corners, source=None):
            """Blackens a rectangle or takes its samples from another picture, whole chroma only."""
            left, top, right, bottom = corners
            if plane:
                down, up = (1, 0) if source is None else (0, 1)
                left, top = (left + up) // 2, (top + up) // 2
                right, bottom = (right + down) // 2, (bottom + down) // 2
            for y in range(max(top, 0), min(bottom, len(rows))):
                width = len(rows[y])
                columns = slice(max(0, min(left, width)), max(0, min(right, width)))
                rows[y][columns] = source[y][columns] if source else \
                    bytes([128 if plane else 16]) * len(rows[y][columns])

        def rows_of(frame, plane):
            width, height = frame.plane_size(plane)
            return [bytearray(frame.planes[plane][y * width:(y + 1) * width]) for y in range(height)]

        always = (0, 18)
        for options, margin, when, hide, keep, kept_faces in (
                ("", 25, always, [], [], []),
                ("--hide-margin 0 --from 0.5 --to 2", 0, (3, 12), [], [], []),
                ("--hide-margin 40% --keep-face 2", 40, always, [], [], [2]),
                ("--hide 3,5,20,31@0:00.5-1 --hide 90,0,900,9@2-", 25, always,
                 [((3, 5, 23, 36), 3, 6), ((90, 0, 990, 9), 12, 18)], [], []),
                ("--keep 31,40,80,33@0:0:1.0- --hide 0,50,60,5@-1.5 --to 2.5", 25, (0, 15),
                 [((0, 50, 60, 55), 0, 9)], [((31, 40, 111, 73), 6, 18)], []),
                ("--keep 99,30,62,67", 25, always, [], [((99, 30, 161, 97), 0, 18)], [2])):
            with self.subTest(options):
                outcome = self.detect(clip, *f"--blur --hide-style solid {options} --annotate h.y4m"
                                      .split(), "-o", "faces", module="painted")
                self.assertEqual((outcome.code, "warning" in outcome.errors), (0, False),
                                 outcome.errors)
                shown = frames_of(pathlib.Path(self.path("h.y4m")).read_bytes())
                self.assertEqual(len(shown), len(frames))
                for index, (frame, picture) in enumerate(zip(frames, shown)):
                    for plane in PLANES:
                        source = rows_of(frame, plane)
                        rows = rows_of(frame, plane)
                        if when[0] <= index < when[1]:
                            for number, (face, first, last, _) in faces.items():
                                x, y = ((face[2 + i] - face[i]) * margin // 100 for i in (0, 1))
                                if first - 2 <= index <= last + 2 and number not in kept_faces:
                                    paint(rows, plane, (face[0] - x, face[1] - y, face[2] + x,
                                                        face[3] + y))
                            for area, first, end in keep:
                                if first <= index < end:
                                    paint(rows, plane, area, source)
                            for area, first, end in hide:
                                if first <= index < end:
                                    paint(rows, plane, area)
                        self.assertTrue(rows == rows_of(picture, plane), (index, plane))
        told = self.detect(clip, "--blur", "--annotate", "h.y4m", "--keep-face", 3, module="painted")
        self.assertIn("--keep-face 3: no such face was found", told.errors)


if __name__ == "__main__":
    main()
