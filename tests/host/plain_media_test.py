"""tavro-fd with the media that need no library: what is read, byte for byte, and what is refused."""

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


if __name__ == "__main__":
    main()
