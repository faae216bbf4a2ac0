"""tavro-fd from the outside: what reaches the detector, what comes out, and how it says no. All of
this holds with either of the media folders."""

import os
import re
import subprocess

from application import (MODULES, PROGRAM, ApplicationTest, fake_faces, main, noise, plain, raw_video,
                         y4m)

ON_WINDOWS = PROGRAM[-1:] and PROGRAM[-1].endswith(".exe")


class Application(ApplicationTest):
    def clip(self, count):
        return self.file("clip.y4m", y4m([noise(self.random, 32, 18) for _ in range(count)]))

    def test_yuv420p_reaches_the_detector_byte_for_byte(self):
        for width, height in ((1, 1), (2, 2), (3, 5), (16, 16), (33, 17), (161, 91), (640, 360)):
            frames = [noise(self.random, width, height) for _ in range(3)]
            stream = y4m(frames)
            clip = self.file("clip.y4m", stream)
            samples = self.file("samples", b"".join(frame.samples() for frame in frames))
            expected = [{"frame": i, "time": i / 25, "width": width, "height": height,
                         "faces": fake_faces(frame)} for i, frame in enumerate(frames)]
            for arguments, stdin in (([clip], b""), (["-"], stream),
                                     ([*raw_video(f"{width}x{height}"), samples], b"")):
                with self.subTest(width=width, height=height, arguments=arguments):
                    results = self.succeed(3, *arguments, stdin=stdin)
                    for result in results:
                        self.assertGreaterEqual(result.pop("ms"), 0)
                    self.assertEqual(results, expected)

    def test_module_diagnostics_stay_out_of_the_results(self):
        clip, file = self.clip(2), self.path("faces.jsonl")
        direct = self.detect(clip)
        self.assertEqual(len(direct.results()), 2)
        self.assertEqual(direct.errors, "fake: prepared\n" + 2 * "fake: frame of 32 x 18\n")
        stored = self.detect(clip, "-o", file)
        self.assertEqual((stored.code, stored.output), (0, b""))
        for closed in ("", "<&- >&- 2>&-")[:1 if ON_WINDOWS else 2]:
            if closed:  # the files that are opened mustn't take the places of the streams
                subprocess.run(["sh", "-c", f'exec "$@" {closed}', "-", *PROGRAM, clip, "--output",
                                file, "--module", MODULES], check=True)
            with open(file, "rb") as text:
                stored.output = text.read()
            self.assertEqual(*([result["faces"] for result in outcome.results()]
                               for outcome in (direct, stored)))

    def test_every_max_frames_and_repeat_pick_frames(self):
        clip = self.clip(10)
        for options, frames in (("--every 4", [0, 4, 8]),
                                ("--every 100", [0]),
                                ("--max-frames 3", [0, 1, 2]),
                                ("--max-frames 5 --every 2", [0, 2, 4]),
                                ("--max-frames 1000 --every 5", [0, 5]),
                                ("--max-frames 2 --repeat 3", [0, 1])):
            with self.subTest(options):
                results = self.succeed(len(frames), clip, *options.split())
                self.assertEqual([result["frame"] for result in results], frames)

    def test_statistics_count_every_pass(self):
        outcome = self.detect(self.clip(10), "--every", 2, "--repeat", 3, "--stats")
        self.assertEqual((outcome.code, len(outcome.results())), (0, 5))
        for part in ("30 decoded, 15 analysed", "min ", "median ", "p99 ", "max ",
                     "frames per second", "peak memory", "MiB"):
            self.assertIn(part, outcome.errors)

    def test_windows_find_each_face_once_and_regions_leave_the_others_out(self):
        frames = []
        for left in range(100, 340, 20):
            frame = plain(480, 270, 16)
            for y in range(40, 64):
                frame.planes[0][y * 480 + left:y * 480 + left + 24] = bytes([200]) * 24
                frame.planes[0][(y + 150) * 480 + 20:(y + 150) * 480 + 44] = bytes([230]) * 24
            frames.append(frame)
        clip = self.file("clip.y4m", y4m(frames))
        told = self.detect(clip, "--smallest-face", 12, "--stats", module="painted")
        self.assertIn("windows      11, for faces of 10 pixels and more\n", told.errors)
        self.assertRegex(told.errors, r"\n +156x156 +at +324,114 +median .* 12 frames\n")
        windows = [result["faces"] for result in told.results()]
        self.assertEqual({len({face.pop("number") for face in faces}) for faces in windows}, {2})
        for options in (("--smallest-face", 12, "--threads", 1), ("--smallest-face", 12, "--budget",
                        "1000ms"), ("--smallest-face", 12, "--max-windows", 11, "--threads", 8)):
            results = self.succeed(12, clip, *options, module="painted")
            self.assertEqual([result["faces"] for result in results], windows)
        inside = self.detect("--roi", "90,30,300,60", "--roi", "400,0,80,270", clip,
                             module="painted")
        self.assertEqual([[face["left"] for face in result["faces"]]
                          for result in inside.results()],
                         [[left] for left in range(100, 340, 20)])
        for outcome in (told, inside):  # once, whatever the number of instances
            self.assertEqual(outcome.errors.count("fake: prepared\n"), 1)

    def test_bad_usage_is_one_line_and_exit_code_2(self):
        clip = self.clip(2)
        tone = (b"RIFF\x2c\0\0\0WAVEfmt \x10\0\0\0\1\0\1\0\x40\x1f\0\0\x80\x3e\0\0\2\0\x10\0data"
                b"\x08\0\0\0\0\0\0\0\0\0\0\0")
        self.file("tone.wav", tone)
        self.file("empty.y4m", b"YUV4MPEG2 W32 H18 F25:1\n")
        os.link(self.file("linked.mp4", b""), self.path("link.mp4"))
        told = {
            "clip.y4m extra": "unexpected argument extra: several inputs need --output-dir ",
            "--resume clip.y4m": "--resume requires --output-dir",
            ".": ". is a folder, which needs --output-dir",
            "--output-dir o - clip.y4m": "the standard input has no name",
            "--output-dir o clip.y4m --report r.html": "--report needs {} for the input's name",
            "--output-dir o clip.y4m --serve 8080": "--serve shows a single input",
            "--output-dir . other.y4m clip.y4m -o {}.y4m": "would be overwritten: ",
            "--output-dir o clip.y4m sub/clip.mp4": "clip.y4m and sub/clip.mp4 would both be written",
            "clip.y4m --every 0": "--every: must be a whole number from 1 to 1000000000, not 0 ",
            "clip.y4m --smallest-face 0": "--smallest-face: must be a whole number",
            "clip.y4m --budget 8s": "8ms, not 8s",
            "clip.y4m --budget 8ms": "--budget needs --smallest-face",
            "clip.y4m --format xml": "--format: must be jsonl, csv, ",
            "clip.y4m --roi 0,0,9": "must be X,Y,W,H",
            "clip.y4m --roi 0,0,9,9 --roi 32,0,9,9":
                "--roi lies outside of the frame: 32,0 in 32x18",
            "file:clip.y4m --output clip.y4m": "would be overwritten: clip.y4m",
            "clip.y4m --blur --hide-style grey": "--hide-style: must be pixelate, blur or solid, not",
            "clip.y4m --blur --hide-shape round": "must be rectangle or ellipse, not round",
            "clip.y4m --blur --hide-margin -1": "must be a percentage from 0 to 1000, not -1",
            "clip.y4m --blur --keep-face 0": "--keep-face: must be a face's number, not 0",
            "clip.y4m --blur --hide 0,0,9,9@2-1": "--hide: must be X,Y,W,H in pixels or X,Y,W,H@FROM",
            "clip.y4m --blur --from 1:x": "--from: must be a time such as 75.5 or 1:15.5, not 1:x",
            "clip.y4m --blur --to 1 --from 0:01 --annotate b.png": "--to must be later than --from",
            "clip.y4m --blur --keep 0,18,9,9 --annotate b.png":
                "--keep lies outside of the frame: 0,18 in 32x18",
            "clip.y4m --keep 0,0,9,9": "--keep requires --blur",
            "clip.y4m --live": "--live is for what comes as it happens",
            "clip.y4m --report -": "--report: needs a name",
            "clip.y4m --crop-faces .": "--crop-faces needs another folder",
            "shot_%03d.png --annotate shot_001.png": "would be overwritten: shot_001.png",
            "./shot_%d_a.png --report shot_12_a.png": "would be overwritten",
            "-x.jpg": "unknown option -x.jpg "}
        options = """--no-such-option; --every -3; --every two; --every 99999999999999999999;
            --max-frames 0; --repeat 0; --output o.mp4 --annotate ./o.mp4;
            --output link.mp4 --annotate linked.mp4; --blur;
            --blur --every 2 --annotate b.png; --blur --crop-faces faces --annotate b.png;
            --report-pictures --annotate b.png; --format blur-filter --every 2;
            --crop-faces /dev/null/faces; --report r.html --output r.html;
            --report /nowhere/r.html; --serve [::1:80; --serve elsewhere.example:80;
            --serve 192.0.2.1:0; --annotate boxes.txt; --annotate clip.y4m; --output clip.y4m;
            --output /nowhere/f.jsonl; --annotate /nowhere/boxes.mp4;
            --annotate /nowhere/boxes.png; --input-format no-such-format;
            --input-option novalue; --input-option no_such_option=1; --smallest-face 12px;
            --max-windows 1001; --threads -1; --smallest-face 9 --budget 0; --roi 0,0,9,0;
            --roi 0,0,9,9,; --blur --hide 0,0,9,9@; --blur --hide 0,0,9,9@-; --blur --keep 0,0,9,0;
            --blur --keep 0,0,9,9@1; --blur --from -1; --blur --to nan; --blur --to"""  # 192.0.2.1 is no address of this machine
        for arguments, reason in (
                *((line.split(), reason) for line, reason in told.items()),
                *(([clip, *line.split()], "") for line in options.split(";")),
                ([], ""), ([clip, "--crop-faces", ""], ""), ([clip, "--serve", "80 80"], ""),
                (["-", "--repeat", "2"], ""), (["-"], ""),  # nothing comes in
                (["missing.mp4"], ""), ([""], ""), (["tone.wav"], ""),
                (["empty.y4m"], "")):
            with self.subTest(arguments):
                # The module prints lines of its own: they must not hide the application's.
                self.refuse(self.detect(*arguments), reason)
        if not ON_WINDOWS:  # it has no name for the standard input
            with open(clip, "rb") as stdin:
                piped = subprocess.run([*PROGRAM, "-", "--output", "clip.y4m"], cwd=self.folder,
                                       stdin=stdin, stderr=subprocess.DEVNULL, check=False)
            self.assertEqual(piped.returncode, 2)
        self.succeed(2, clip)  # an input that was named as an output is still there

    def test_several_inputs_have_files_of_their_own_and_complete_ones_are_left_out(self):
        clips = {name: y4m([noise(self.random, 32, 18) for _ in range(count)])
                 for name, count in (("a", 3), ("sub/b", 2), ("cut", 2))}
        out = self.folder / "clips" / "out"  # among the inputs, but not one of them
        (self.folder / "clips" / "sub").mkdir(parents=True)
        for name, stream in clips.items():
            self.file(f"clips/{name}.y4m", stream[:-5 if name == "cut" else None])
        for name in ("bad.y4m", ".a.y4m", "notes.txt"):
            self.file("clips/" + name, b"no video")

        def run(*arguments):
            outcome = self.detect("--output-dir", out, "--report", "{}.html", "--format", "csv",
                                  "clips", "clips/sub/../a.y4m", *arguments)
            self.assertEqual(outcome.output, b"")
            return outcome.code, outcome.errors.replace("\\", "/"), {
                path.relative_to(out).as_posix(): path.stat().st_mtime_ns
                for path in out.rglob("*") if path.is_file()}

        code, errors, first = run("clips/missing.y4m")
        self.assertEqual(code, 1)
        for line in ("incomplete: clips/cut.y4m", "failed: clips/bad.y4m",
                     "failed: clips/missing.y4m", "2 complete, 1 incomplete, 2 failed"):
            self.assertIn(f"tavro-fd: {line}\n", errors)
        self.assertEqual(set(first), {"a.csv", "a.html", "sub/b.csv", "sub/b.html",
                                      "cut.part.csv", "cut.part.html"})
        single = self.detect("clips/a.y4m", "--format", "csv").output
        without_times = re.compile(rb",[^,\n]*$", re.M)
        self.assertEqual(*(without_times.sub(b"", text)
                           for text in ((out / "a.csv").read_bytes(), single)))

        os.utime(out / "a.csv", ns=(1, 1))  # older than its input
        self.file("clips/cut.y4m", clips["cut"])
        os.remove(self.path("clips/bad.y4m"))
        code, errors, again = run("--resume")
        self.assertEqual(code, 0, errors)
        self.assertIn("2 complete, 0 incomplete, 0 failed, 1 complete before\n", errors)
        self.assertEqual(set(again), {name.replace(".part", "") for name in first})
        self.assertEqual({name for name in again if again[name] == first.get(name)},
                         {"sub/b.csv", "sub/b.html"})
        only = self.detect("--output-dir", "only", "--report", "{}.html", "clips/a.y4m")
        self.assertEqual((only.code, only.output, os.listdir(self.path("only"))),
                         (0, b"", ["a.html"]))

    def test_bad_modules_are_one_line_and_exit_code_2(self):
        clip = self.clip(1)
        self.refuse(self.execute(clip, "--module", "/nowhere/module.so"))
        for module in ("silent", "poor"):
            self.refuse(self.detect(clip, module=module))
        unready = self.detect(clip, module="unready")
        self.assertEqual((unready.code, unready.errors),
                         (2, "fake: prepared\ntavro-fd: the detector can't be prepared\n"))

    def test_refused_frames_give_empty_results_and_one_warning(self):
        outcome = self.detect(self.clip(3), module="refusing")
        self.assertEqual(outcome.code, 1)
        self.assertEqual([result["faces"] for result in outcome.results()], [[], [], []])
        self.assertIn("tavro-fd: warning: the detector refused 3 frames\n", outcome.errors)

    def test_help_and_version_go_to_the_standard_output(self):
        asked = self.execute("--help")
        self.assertEqual((asked.code, asked.errors), (0, ""))
        for part in (b"--annotate", b"--every", b"Examples:", b"Exit codes:"):
            self.assertIn(part, asked.output)
        self.assertLessEqual(max(map(len, asked.output.splitlines())), 82)
        options = set(re.findall(rb"^ +(?:-\w,)?(--[\w-]+)", asked.output, re.M))
        manual = self.execute("--manual").output.replace(b"\\-", b"-")
        self.assertEqual(set(re.findall(rb"\\fB(--[^\\]*)", manual)), options)
        completion = self.execute("--bash-completion").output.decode()
        for words, expected in ((["--hide-sh"], "--hide-shape"), (["--hide-shape", "e"], "ellipse"),
                                (["--output", "--h"], "")) if not ON_WINDOWS else ():
            typed = " ".join(["tavro-fd", *words])
            completed = subprocess.run(
                ["bash", "-c", f"{completion}\nCOMP_WORDS=({typed}) COMP_CWORD={len(words)}\n"
                 "_tavro_fd; echo -n ${COMPREPLY[@]}"], check=True, stdout=subprocess.PIPE).stdout
            self.assertEqual(completed.decode(), expected)
        version = self.execute("--version")
        self.assertEqual((version.code, version.output[:9]), (0, b"tavro-fd "))

    def test_the_detector_beside_it_is_found(self):
        outcome = self.execute(self.clip(4))
        self.assertEqual((outcome.code, len(outcome.results())), (0, 4), outcome.errors)
        # Wider than the detector takes: a result for every frame all the same.
        wide = self.execute(self.file("wide.y4m", y4m([noise(self.random, 32770, 2)] * 2)))
        self.assertEqual((wide.code, len(wide.results())), (1, 2))
        self.assertIn("refused 2 frames", wide.errors)


if __name__ == "__main__":
    main()
