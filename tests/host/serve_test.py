"""tavro-fd --serve as a browser sees it: the page, the pictures and the results; whom it refuses; that
a viewer who takes nothing holds up nobody; how it ends."""

import contextlib
import http.client
import itertools
import json
import os
import re
import shutil
import signal
import socket
import subprocess
import tempfile
import threading
import time
import unittest

from application import PROGRAM, main

WIDTH, HEIGHT, RATE = 640, 360, 25
HEADER = f"YUV4MPEG2 W{WIDTH} H{HEIGHT} F{RATE}:1 C420jpeg\n".encode()
FRAME = b"FRAME\n" + os.urandom(WIDTH * HEIGHT * 3 // 2)  # as large a JPEG as there is
BROWSER = shutil.which("chromium")


class Server:
    """tavro-fd with an endless video at its standard input."""

    def __init__(self, address):
        self.output = tempfile.TemporaryFile("w+")
        self.process = subprocess.Popen(
            [*PROGRAM, "-", "--serve", address], stdin=subprocess.PIPE, stdout=self.output,
            stderr=subprocess.PIPE, text=False)
        self.feeding = True
        self.feeder = threading.Thread(target=self.feed)
        self.feeder.start()
        self.port = None
        for line in self.process.stderr:
            if match := re.match(rb"tavro-fd: showing the pictures at http://.*:(\d+)/", line):
                self.port = int(match[1])
                break

    def feed(self):
        try:
            self.process.stdin.write(HEADER)
            while self.feeding:
                self.process.stdin.write(FRAME)
        except BrokenPipeError:  # it was told to stop
            pass
        with contextlib.suppress(BrokenPipeError):
            self.process.stdin.close()

    def get(self, path, method="GET", headers=()):
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=20)
        connection.request(method, path, headers=dict(headers))
        return connection.getresponse()

    def frames(self):
        """The numbers of the frames in the results, once the process has ended."""
        self.output.seek(0)
        return [json.loads(line)["frame"] for line in self.output]

    def end(self):
        self.feeding = False
        code = self.process.wait(60)
        self.feeder.join()
        self.process.stderr.close()
        return code


class Serve(unittest.TestCase):
    def setUp(self):
        self.server = Server("0")
        self.addCleanup(self.server.output.close)
        self.addCleanup(self.server.process.kill)

    def test_page_pictures_and_results_are_shown(self):
        page = self.server.get("/").read().decode()
        self.assertIn("<img", page)
        self.assertNotIn("://", page)  # nothing from elsewhere

        events = self.server.get("/events")
        self.assertEqual(events.headers["Content-Type"], "text/event-stream")
        results = [json.loads(line[6:]) for line in itertools.islice(
            (line for line in events if line.startswith(b"data: ")), 5)]
        numbers = [result["frame"] for result in results]
        self.assertEqual(numbers, sorted(set(numbers)))
        self.assertEqual(results[0]["width"], WIDTH)

        stream = self.server.get("/stream")
        self.assertIn("boundary=frame", stream.headers["Content-Type"])
        for _ in range(3):
            self.assertEqual(stream.readline(), b"--frame\r\n")
            self.assertEqual(stream.readline(), b"Content-Type: image/jpeg\r\n")
            length = int(stream.readline().removeprefix(b"Content-Length: "))
            self.assertEqual(stream.readline(), b"\r\n")
            picture = stream.read(length)
            self.assertEqual((picture[:2], picture[-2:]), (b"\xff\xd8", b"\xff\xd9"))
            self.assertEqual(stream.readline(), b"\r\n")
        self.assertEqual(self.server.end(), 0)
        self.assertLess(len(stream.read()), 10 * length)  # ends for who still looks
        self.assertTrue(set(numbers) <= set(self.server.frames()))

    @unittest.skipUnless(BROWSER, "there is no Chromium")
    def test_a_browser_shows_the_results(self):
        status = re.compile(r'"status">\d+ faces? at \d+\.\d s, found in \d+\.\d\d ms<')
        with tempfile.TemporaryDirectory() as profile:
            for _ in range(5):  # a busy browser may dump the page before its first event
                page = subprocess.run(
                    [BROWSER, "--headless", "--no-sandbox", "--disable-gpu", "--timeout=8000",
                     "--user-data-dir=" + profile, "--dump-dom",
                     f"http://127.0.0.1:{self.server.port}/"],
                    capture_output=True, text=True, timeout=120, check=True).stdout
                if status.search(page):
                    break
        self.assertRegex(page, status)
        self.assertEqual(self.server.end(), 0)

    def test_refusals_are_in_plain_words(self):
        port = str(self.server.port)
        for path, method, headers, status in [
                ("/other", "GET", {}, 404),
                ("/../etc/passwd", "GET", {}, 404),
                ("/", "POST", {}, 405),
                ("/", "HEAD", {}, 200), ("/stream", "HEAD", {}, 200),
                ("/stream", "GET", {"Host": "elsewhere.example"}, 403),
                ("/", "GET", {"Host": "127.elsewhere.example"}, 403),
                ("/", "GET", {"Host": "127.0.0.2:" + port}, 200),
                ("/", "GET", {"Host": "localhost:" + port}, 200)]:
            with self.subTest(path=path, method=method):
                self.assertEqual(self.server.get(path, method, headers).status, status)
        with socket.create_connection(("127.0.0.1", self.server.port)) as broken:
            broken.sendall(b"\x00\xff nonsense\r\n\r\n")
        second = subprocess.run([*PROGRAM, "-", "--serve", port], input=HEADER + FRAME,
                                capture_output=True, check=False)
        self.assertEqual(second.returncode, 2)
        self.assertRegex(second.stderr, rb"tavro-fd: --serve \d+: Address already in use\n")
        self.assertEqual(self.server.get("/").status, 200)  # still there for others
        self.assertEqual(self.server.end(), 0)

    def test_a_viewer_who_takes_nothing_holds_up_nobody(self):
        events = self.server.get("/events")

        def seconds_for(frames):
            started, left = time.monotonic(), frames
            while left > 0:
                left -= events.readline().startswith(b"data: ")
            return time.monotonic() - started

        unhindered = seconds_for(RATE)
        idle = [socket.create_connection(("127.0.0.1", self.server.port)) for _ in range(32)]
        for connection in idle:
            connection.sendall(b"GET /stream HTTP/1.1\r\nHost: localhost\r\n\r\n")
            self.assertEqual(connection.recv(12), b"HTTP/1.1 200")
        for _ in range(3):
            refused = self.server.get("/stream")
            self.assertEqual((refused.status, refused.read()[:9]), (503, b"There are"))
        while idle[5:]:
            idle.pop().close()
        gone = self.server.get("/stream")
        gone.read(100)
        gone.close()
        # A viewer who is waited for would stop all for seconds once the buffers of its connection
        # are full.
        self.assertLess(seconds_for(3 * RATE), 4 * unhindered + 5)
        self.server.process.send_signal(signal.SIGINT)
        self.assertEqual(self.server.end(), 128 + signal.SIGINT)
        frames = self.server.frames()
        self.assertEqual(frames, list(range(len(frames))))
        for connection in idle:
            connection.close()


if __name__ == "__main__":
    main()
