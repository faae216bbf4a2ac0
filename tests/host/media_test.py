"""tavro-fd with FFmpeg's libraries: pictures and videos that have to be converted for the detector,
damaged ones, the annotated ones that it writes, and devices."""

import itertools
import json
import os
import pathlib
import re
import select
import shutil
import signal
import struct
import subprocess
import time
import unittest

from application import (MODULES, PLANES, PROGRAM, ApplicationTest, Frame, chroma_bytes, fake_faces,
                         ffmpeg, main, noise, pictures_of, plain, quarters, raw_video, y4m)

LUMA = (60, 110, 160, 210)
HAS_FFMPEG = shutil.which("ffmpeg")


def full_range_jpeg(frame):
    """A JPEG of the frame, whose samples count as full range."""
    return ffmpeg("-f", "yuv4mpegpipe", "-i", "-", "-pix_fmt", "yuvj420p", "-q:v", 2, "-f", "mjpeg",
                  "-", stdin=y4m([frame], "F25:1 C420jpeg XCOLORRANGE=FULL"))


def with_orientation(jpeg, orientation):
    """With an Exif block that has nothing but the orientation."""
    block = b"Exif\0\0MM\0\x2a\0\0\0\x08\0\1\x01\x12\0\3\0\0\0\1\0%c\0\0\0\0\0\0" % orientation
    return jpeg[:2] + b"\xff\xe1\0" + bytes([len(block) + 2]) + block + jpeg[2:]


def turned(frame, a, b, c, d):
    """Moves each sample by a display matrix: x' = a x + c y, y' = b x + d y, and all of them back
    into the positive quadrant."""
    upright = Frame(*(frame.width, frame.height)[::1 if a else -1], [b""] * 3)
    for plane in PLANES:
        width, height = frame.plane_size(plane)
        moved = {(a * x + c * y, b * x + d * y): frame.planes[plane][y * width + x]
                 for y in range(height) for x in range(width)}
        upright.planes[plane] = bytes(moved[place] for place in sorted(
            moved, key=lambda place: place[::-1]))
    return upright


class MediaTest(ApplicationTest):
    def expect_quarters(self, result, expected):
        """Compares the mean luma of the quarters, which is the fake detector's last rectangle."""
        for mean, value in zip(result["faces"][-1].values(), expected):
            self.assertAlmostEqual(mean, value, delta=2)


@unittest.skipUnless(HAS_FFMPEG, "there is no ffmpeg program")
class Formats(MediaTest):
    def test_full_range_is_brought_to_limited_range_and_photos_are_turned_upright(self):
        frame = quarters(64, 48, (0, 255, 128, 64))
        a, b, c, d = 16, 235, 126, 71
        photo = full_range_jpeg(frame)
        for name, content, expected in (
                ("full.y4m", y4m([frame], "F25:1 C420jpeg XCOLORRANGE=FULL"), (a, b, c, d)),
                ("limited.y4m", y4m([frame], "F25:1 C420jpeg XCOLORRANGE=LIMITED"),
                 (0, 255, 128, 64)),  # the same samples
                ("100%d.jpg", photo, (a, b, c, d)), ("12:30.jpg", photo, (a, b, c, d)),
                # By the Exif standard: which side of the stored picture is the visual top and left.
                ("mirrored.jpg", with_orientation(photo, 2), (b, a, d, c)),
                ("quarter turn.jpg", with_orientation(photo, 6), (c, a, d, b))):
            with self.subTest(name):
                result = self.succeed(1, self.file(name, content))[0]
                self.assertEqual(result["width"], 48 if "turn" in name else 64)
                self.expect_quarters(result, expected)
        moving = b"RIFF\x16\0\0\0WEBPVP8X\x0a\0\0\0\x02" + bytes(9)
        self.refuse(self.detect(self.file("moving.webp", moving)),
                    "moving.webp: no frame could be decoded, FFmpeg reads no animated WebP")

    def test_other_samplings_and_depths_are_converted(self):
        luma = quarters(34, 26, LUMA).planes[0]
        for name, chroma, depth in (("C444", 2 * 34 * 26, 8), ("C422", 2 * 17 * 26, 8),
                                    ("C420p10", 2 * 17 * 13, 10)):
            with self.subTest(name):
                values = [sample << depth - 8 for sample in luma + bytes([128]) * chroma]
                samples = struct.pack(f"<{len(values)}{'B' if depth == 8 else 'H'}", *values)
                head = f"YUV4MPEG2 W34 H26 F25:1 {name}\nFRAME\n".encode()
                result = self.succeed(1, self.file("clip.y4m", head + samples))[0]
                self.assertEqual(result["width"], 34)
                self.expect_quarters(result, LUMA)

    def test_raw_pictures_of_any_width_are_converted(self):
        # As cameras have it. Widths that fit no vector made the converter write beside its rows.
        for name, (width, height) in itertools.product(
                ("nv12", "nv21", "yuv422p", "rgb24"),
                ((854, 480), (200, 150), (33, 17), (2, 2), (1, 1))):
            with self.subTest(name, width=width, height=height):
                frame = noise(self.random, width, height)
                samples = bytes(frame.planes[0])
                pairs = zip(*frame.planes[1:] if name == "nv12" else frame.planes[:0:-1])
                samples += bytes(itertools.chain.from_iterable(pairs))
                samples += bytes({"yuv422p": 2 * ((width + 1) // 2 * height -
                                                  chroma_bytes(width, height)),
                                  "rgb24": 3 * width * height - len(samples)}.get(name, 0))
                results = self.succeed(2, self.file("raw", 2 * samples), *raw_video(
                    f"{width}x{height}", f"pixel_format={name}"))
                if name.startswith("nv"):  # whose samples are kept
                    self.assertEqual(results[1]["faces"], fake_faces(frame))

    def test_videos_are_turned_upright_sample_by_sample(self):
        unit = 1 << 16
        matrices = [(a, 0, 0, d) for a in (1, -1) for d in (1, -1)]
        matrices += [(0, b, c, 0) for b in (1, -1) for c in (1, -1)]
        cases = [([unit * value for value in matrix], matrix) for matrix in matrices]
        cases += [((-229, unit, -unit, -229), (0, 1, -1, 0)),  # 90.2 degrees, rounded by its writer
                  ((46341, 46341, -46341, 46341), (1, 0, 0, 1))]  # 45 degrees are left alone
        for width, height in ((33, 65), (71, 40), (1, 7)):
            frame = noise(self.random, width, height)
            movie = ffmpeg("-i", "-", "-c:v", "ffv1", "-f", "mov", "-movflags", "frag_keyframe",
                           "-", stdin=y4m([frame]))
            at = movie.index(b"tkhd") + 44
            for (a, b, c, d), matrix in cases:
                with self.subTest(width=width, height=height, matrix=(a, b, c, d)):
                    stored = struct.pack(">9i", a, b, 0, c, d, 0, 0, 0, 1 << 30)
                    path = self.file("clip.mov", movie[:at] + stored + movie[at + 36:])
                    result = self.succeed(1, path)[0]
                    upright = turned(frame, *matrix)
                    self.assertEqual((result["width"], result["height"]),
                                     (upright.width, upright.height))
                    self.assertEqual(result["faces"], fake_faces(upright))

    def test_annotated_files_can_be_read_again(self):
        # The fake's fourth rectangle has the quarters' luma for corners: one that can be seen.
        clip = self.file("clip.y4m", y4m([quarters(129, 97, (20, 30, 90, 70))] * 5,
                                         "F30000:1001 C420jpeg"))
        # Every frame is in the video, and those between two detections keep their rectangles.
        for name, count, width, height in (("boxes.mp4", 5, 130, 98), ("boxes.MKV", 5, 130, 98),
                                           ("boxes.mov", 5, 130, 98), ("boxes.png", 1, 129, 97)):
            with self.subTest(name):
                outcome = self.detect(clip, "--annotate", name, "--every", 3)
                self.assertEqual((outcome.code, len(outcome.results())), (0, 2), outcome.errors)
                self.assertEqual("holds the first of 5 frames" in outcome.errors, count == 1)
                pictures = pictures_of(self.path(name))
                self.assertEqual(len(pictures), count)
                for picture in pictures:
                    self.assertEqual((picture.width, picture.height), (width, height))
                    for x, y, luma, delta in ((55, 31, 173, 25), (21, 45, 173, 25),  # its edges
                                              (40, 40, 20, 10), (10, 10, 20, 10)):  # in and out
                        self.assertAlmostEqual(picture.luma(x, y), luma, delta=delta)

    def test_changing_picture_sizes_and_halting_clocks_fit_the_video(self):
        photos = b"".join(full_range_jpeg(quarters(*size, LUMA))
                          for size in ((64, 32), (64, 128), (31, 33), (64, 32)))
        self.succeed(4, self.file("photos", photos), "--input-format", "mjpeg",
                     "--annotate", "sizes.mp4")
        raw = self.file("raw", 4 * quarters(64, 32, LUMA).samples())
        self.succeed(4, raw, "--annotate", "halt.mp4", *raw_video("64x32", "framerate=1000000"))
        for name in ("sizes.mp4", "halt.mp4"):
            self.assertEqual([(picture.width, picture.height)
                              for picture in pictures_of(self.path(name))], 4 * [(64, 32)])

    def test_what_the_encoder_refuses_is_told_in_its_words(self):
        wide = self.file("wide.y4m", y4m([quarters(32768, 2, LUMA)]))
        # libx264 loses memory over what it refuses.
        outcome = self.detect(wide, "--annotate", "boxes.mp4",
                              env={**os.environ, "LSAN_OPTIONS": "detect_leaks=0"})
        self.assertEqual(outcome.code, 2)
        self.assertIn("32768x2", outcome.errors)
        self.assertFalse(os.path.exists(self.path("boxes.mp4")))


@unittest.skipUnless(HAS_FFMPEG, "there is no ffmpeg program")
class OtherStreams(MediaTest):
    """What goes along with the pictures that are drawn on."""

    def clip(self, name, *options):
        """Six seconds of pictures at uneven times, with sound, subtitles and a chapter."""
        words = self.file("words.srt", b"1\n00:00:01,000 --> 00:00:02,500\nHello\n")
        notes = self.file("notes", b";FFMETADATA1\ntitle=A walk\n[CHAPTER]\nTIMEBASE=1/1000\n"
                                   b"START=1000\nEND=3000\ntitle=The gate\n")
        ffmpeg("-f", "lavfi", "-i", "testsrc2=s=160x96:r=25:d=6,select='not(eq(mod(n,7),3))',"
               "setsar=4/3", "-f", "lavfi", "-i", "sine=d=6.5", "-i", words, "-i", notes,
               "-map", 0, "-map", 1, "-map", 2, "-map_metadata", 3, "-fps_mode", "vfr",
               "-c:v", "libx264", "-pix_fmt", "yuv420p", "-colorspace", "bt709", "-color_trc",
               "bt709", "-color_primaries", "bt709", "-metadata:s:a:0", "language=fra",
               *options, self.path(name))
        return self.path(name)

    def probe(self, path):
        return json.loads(subprocess.run(
            ["ffprobe", "-v", "error", "-show_streams", "-show_chapters", "-show_format",
             "-show_entries", "packet=stream_index,pts_time,data_hash", "-show_data_hash", "crc32",
             "-of", "json", path], stdout=subprocess.PIPE, check=True).stdout)

    def test_they_are_copied_with_their_times(self):
        for kind, *options in (("mp4", "-c:s", "mov_text"), ("mkv", "-c:a", "flac", "-c:s", "srt"),
                               ("mov", "-c:s", "mov_text")):
            source = self.clip("clip." + kind, *options)
            for words in ([], ["--blur"]):
                with self.subTest(kind, words=words):
                    target = self.path("shown." + kind)
                    outcome = self.detect(source, "--annotate", target, *words)
                    self.assertEqual(outcome.code, 0)
                    self.assertNotIn("warning", outcome.errors)
                    before, after = self.probe(source), self.probe(target)
                    self.assertEqual(after["format"]["tags"]["title"], "A walk")
                    self.assertEqual([chapter["tags"]["title"] for chapter in after["chapters"]],
                                     ["The gate"])
                    for name in ("codec_type", "sample_aspect_ratio", "color_space", "color_range",
                                 "color_transfer", "color_primaries"):
                        self.assertEqual([stream.get(name, "tv" if "range" in name else None)
                                          for stream in after["streams"][:3]],
                                         [stream.get(name, "tv" if "range" in name else None)
                                          for stream in before["streams"][:3]], name)
                    self.assertEqual(after["streams"][1]["tags"]["language"], "fra")
                    for index in range(3):
                        found = [[(float(packet["pts_time"]), index and packet["data_hash"])
                                  for packet in probed["packets"]
                                  if packet["stream_index"] == index]
                                 for probed in (before, after)]
                        if kind != "mkv":  # an empty one stands for the time without words
                            found = [[packet for packet in packets if index < 2 or packet[0] == 1]
                                     for packets in found]
                        times = [sorted(packet[0] for packet in packets) for packets in found]
                        self.assertEqual(len(times[0]), len(times[1]), index)
                        for early, late in zip(*times):
                            self.assertAlmostEqual(early, late, delta=0.0011)
                        self.assertEqual(*([packet[1] for packet in packets]
                                           for packets in found))

    def test_what_a_container_refuses_is_named_and_hidden_faces_stay_hidden(self):
        cover = self.file("cover.jpg", full_range_jpeg(quarters(64, 48, LUMA)))
        ffmpeg("-i", self.clip("clip.mkv", "-c:s", "srt"), "-i", cover, "-map", 0, "-map", 1,
               "-c", "copy", "-disposition:v:1", "attached_pic", self.path("cover.mkv"))
        outcome = self.detect("cover.mkv", "--blur", "--annotate", "shown.mp4", "--max-frames", 25)
        self.assertEqual(outcome.code, 0)
        self.assertIn("stream 2 (subtitle, subrip) is left out: this container", outcome.errors)
        self.assertIn("(video, mjpeg) is left out: it may show faces", outcome.errors)
        after = self.probe(self.path("shown.mp4"))
        self.assertEqual([stream["codec_type"] for stream in after["streams"][:2]],
                         ["video", "audio"])
        self.assertLess(float(after["format"]["duration"]), 1.4)  # of 6.5 seconds

        # What the muxer takes by its kind but not at that rate, and what comes through a pipe.
        self.clip("slow.mkv", "-c:a", "libmp3lame", "-ar", 8000, "-c:s", "srt")
        outcome = self.detect("slow.mkv", "--annotate", "slow.mp4")
        self.assertEqual(outcome.code, 0)
        self.assertIn("stream 1 (audio, mp3) is left out: this container", outcome.errors)
        kinds = [stream["codec_type"] for stream in self.probe(self.path("slow.mp4"))["streams"]]
        self.assertEqual((kinds[0], kinds.count("video"), kinds.count("audio")), ("video", 1, 0))
        with open(self.path("slow.mkv"), "rb") as piped:
            outcome = self.detect("-", "--annotate", "piped.mp4", stdin=piped.read())
        self.assertEqual(outcome.code, 0)
        self.assertIn("only a file's are copied", outcome.errors)

    def test_a_turned_video_stays_upright(self):
        clip = self.clip("clip.mp4", "-c:s", "mov_text")
        ffmpeg("-i", clip, "-c", "copy", "-map", 0, "-metadata:s:v:0", "rotate=90",
               self.path("turned.mp4"))
        self.detect("turned.mp4", "--annotate", "shown.mp4", module="refusing")
        video = self.probe(self.path("shown.mp4"))["streams"][0]
        self.assertEqual((video["width"], video["height"], video["sample_aspect_ratio"]),
                         (96, 160, "3:4"))
        self.assertNotIn("side_data_list", video)
        before, after = (pictures_of(self.path(name)) for name in ("turned.mp4", "shown.mp4"))
        self.assertEqual(len(before), len(after))
        for x, y in ((10, 30), (80, 30), (10, 130), (80, 130)):
            self.assertAlmostEqual(before[9].luma(x, y), after[9].luma(x, y), delta=12)

    def test_a_file_that_cannot_grow_ends_the_run(self):
        clip = self.file("clip.y4m", y4m([noise(self.random, 320, 240) for _ in range(60)]))
        limited = subprocess.run(  # in blocks of 512 bytes, and without the signal
            ["sh", "-c", 'trap "" XFSZ; ulimit -f 100; exec "$@"', "-", *PROGRAM, clip, "--annotate",
             "out.mp4", "--output", os.devnull, "--module", MODULES], cwd=self.folder, check=False,
            stderr=subprocess.PIPE, timeout=60)
        self.assertEqual(limited.returncode, 2)
        self.assertIn(b"tavro-fd: out.mp4: File too large", limited.stderr)

    def test_a_killed_run_leaves_a_file_that_plays(self):
        frames = self.file("clip.y4m", y4m([noise(self.random, 320, 192) for _ in range(20)]))
        ffmpeg("-stream_loop", 200, "-i", frames, "-f", "lavfi", "-i", "sine=d=160", "-c:v",
               "mpeg2video", "-q:v", 9, "-t", 160, self.path("long.mkv"))
        for name in ("killed.mp4", "killed.mkv"):
            with self.subTest(name), subprocess.Popen(
                    [*PROGRAM, self.path("long.mkv"), "--annotate", self.path(name), "--module",
                     MODULES], stdout=subprocess.DEVNULL) as process:
                deadline = time.monotonic() + 100
                while process.poll() is None and time.monotonic() < deadline and (
                        not os.path.exists(self.path(name)) or
                        os.path.getsize(self.path(name)) < 1 << 21):
                    time.sleep(0.01)
                process.kill()
                self.assertLess(process.wait(), 0)
                probed = self.probe(self.path(name))
                for index in (0, 1):
                    self.assertGreater(sum(packet["stream_index"] == index
                                           for packet in probed["packets"]), 10)


class Damage(MediaTest):
    """What can be decoded is analysed, and the exit code says that it isn't all."""

    def noise(self, count):
        return y4m([noise(self.random, 96, 64) for _ in range(count)])

    def video(self, name):
        """40 frames of noise, so that packets aren't tiny."""
        self.succeed(40, self.file("noise.y4m", self.noise(40)), "--annotate", name)
        return pathlib.Path(self.path(name)).read_bytes()

    def expect_incomplete(self, name, content, fewest, most):
        for arguments, stdin in (([self.file(name, content)], b""), (["-"], content)):
            with self.subTest(arguments, size=len(content)):
                outcome = self.detect(*arguments, stdin=stdin)
                self.assertEqual(outcome.code, 1, outcome.errors)
                self.assertIn("tavro-fd: warning: ", outcome.errors)
                self.assertIn(len(outcome.results()), range(fewest, most + 1))

    def test_y4m_cut_off(self):
        whole = self.noise(4)
        frame_size = 6 + 96 * 64 * 3 // 2
        # In a frame's samples, one sample before its end, and in the next frame's header.
        for missing in (frame_size // 2, 1, frame_size - 3):
            self.expect_incomplete("cut.y4m", whole[:-missing], 3, 3)
        self.succeed(3, self.file("whole.y4m", whole[:-frame_size]))

    def test_video_cut_off_or_overwritten(self):
        for name in ("cut.mkv", "cut.mp4"):
            whole = self.video(name)
            self.succeed(40, self.path(name))
            self.expect_incomplete(name, whole[:len(whole) * 6 // 10], 10, 39)
        content = bytearray(whole)
        middle, size = len(content) // 2, len(content) // 10
        content[middle:middle + size] = b"\x55" * size
        self.expect_incomplete("holes.mp4", content, 10, 40)

    def test_picture_cut_off_is_bad_input_or_incomplete(self):
        self.succeed(1, self.file("noise.y4m", self.noise(1)), "--annotate", "picture.png")
        whole = pathlib.Path(self.path("picture.png")).read_bytes()
        for eighths in (1, 4, 7):
            outcome = self.detect(self.file("cut.png", whole[:len(whole) * eighths // 8]))
            self.assertEqual(outcome.code, 1 if outcome.output else 2)
            self.assertIn("tavro-fd: ", outcome.errors)

    def test_noise_never_crashes_it(self):
        whole = self.video("whole.mp4")
        for _ in range(30):
            content = bytearray(whole)
            for _ in range(self.random.randint(1, 40)):
                content[self.random.randrange(len(content))] = self.random.randrange(256)
            outcome = self.detect(self.file("damaged.mp4", content))
            self.assertIn(outcome.code, (0, 1, 2))
            outcome.results()  # JSON to the last line


class Devices(ApplicationTest):
    def screen(self, arguments, output_too):
        """What a terminal shows that gets the standard error, and the output if asked for."""
        screen, terminal = os.openpty()
        with subprocess.Popen([*PROGRAM, *arguments], stderr=terminal, stdin=subprocess.DEVNULL,
                              stdout=terminal if output_too else subprocess.DEVNULL) as process:
            os.close(terminal)
            text = bytearray()
            try:
                while part := os.read(screen, 4096):
                    text.extend(part)
            except OSError:  # nobody is left who writes
                pass
            os.close(screen)
        self.assertEqual(process.returncode, 0)
        return bytes(text)

    def shows_progress(self, *arguments):
        return b"\r\033[Ktavro-fd: " in self.screen(*arguments)

    def test_progress_is_shown_unless_it_disturbs_the_results(self):
        clip = self.file("clip.y4m", y4m([plain(32, 18)] * 2))
        arguments = [clip, "--every", "2", "--module", MODULES, "--repeat", "5000"]
        # Passes too short for a line each, which take long enough all together, sooner or later.
        while not self.shows_progress(arguments, False):
            self.assertLess(len(arguments[-1]), 7)
            arguments[-1] += "0"
        self.assertFalse(self.shows_progress(arguments, True))
        report = [clip, "--module", MODULES, "--report", self.path("report.html")]
        for words, shown in (([], False), (["--format", "csv"], True)):
            self.assertEqual(b"0.04,32,18," in self.screen(report + words, True), shown)
            self.assertNotIn(b'"frame"', self.screen(report + words, True))

    def test_one_that_is_stopped_before_it_begins_is_no_fault(self):
        with subprocess.Popen([*PROGRAM, "-", "--module", MODULES], stdin=subprocess.PIPE,
                              stderr=subprocess.PIPE, text=True) as process:
            status = pathlib.Path(f"/proc/{process.pid}/status")
            while int(re.search(r"SigCgt:\s*(\w+)", status.read_text())[1], 16) & 2 == 0:
                time.sleep(0.01)  # the signal would end it at once
            process.send_signal(signal.SIGINT)
            self.assertEqual((process.wait(30), process.stderr.read()), (128 + signal.SIGINT, ""))

    @unittest.skipUnless(HAS_FFMPEG, "there is no ffmpeg program")
    def test_a_live_one_is_not_studied_for_seconds(self):
        pictures = 25 * full_range_jpeg(noise(self.random, 160, 96))
        with subprocess.Popen([*PROGRAM, "-", "--live", "--module", MODULES], stdin=subprocess.PIPE,
                              stdout=subprocess.PIPE, stderr=subprocess.DEVNULL) as process:
            process.stdin.write(pictures)
            process.stdin.flush()
            self.assertTrue(select.select([process.stdout], [], [], 30)[0])  # it isn't at its end

    def test_a_full_one_is_told_in_one_line(self):
        clip = self.file("clip.y4m", y4m([plain(32, 18)] * 2))
        outcome = self.detect(clip, "--output", "/dev/full")
        self.assertEqual(outcome.code, 2)
        self.assertIn("\ntavro-fd: the results can't be written: ", outcome.errors)


if __name__ == "__main__":
    main()
