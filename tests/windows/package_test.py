#!/usr/bin/env python3
"""Makes the package, and uses it as somebody would who has nothing else: builds the example by its
README with the package's own headers and libraries, runs it, and compares its rectangles with those of tavro-fd.

usage: package_test.py CMAKE CPACK BUILD_FOLDER COMPILER PICTURE EMULATOR...
"""

import json
import pathlib
import shutil
import subprocess
import sys
import tempfile
import zipfile

WIDTH, HEIGHT, FRAMES = 160, 120, 3
FILES = """
    LICENSE README.md
    bin/libtavro-core.dll bin/tavro-fd.exe bin/tavro_fd_extension.dll
    example/CMakeLists.txt example/example_host.cpp
    include/engine/platform/loader.h
    include/host/core/face_rects.h include/host/core/host_api.h include/host/core/i420_frame.h
    include/modules/face_detection/fd_wrapper.h include/modules/face_detection/host_interface.h
    lib/libtavro-core.def lib/libtavro-core.dll.a""".split()


def run(*command, **options):
    done = subprocess.run([str(word) for word in command], capture_output=True, text=True, **options)
    if done.returncode != 0:
        sys.exit(f"{command}: {done.returncode}\n{done.stdout}{done.stderr}")
    return done.stdout


def rectangles_of_example(text):
    return [line.split(":", 1)[1].strip() for line in text.splitlines() if line.startswith("frame ")]


def rectangles_of_application(text):
    corners = ("left", "top", "right", "bottom")
    return [" ".join("(" + ", ".join(str(face[corner]) for corner in corners) + ")"
                     for face in json.loads(line)["faces"]) for line in text.splitlines()]


def main(cmake, cpack, build, compiler, picture, *emulator):
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        run(cpack, "-G", "ZIP", "-B", folder, "--config", f"{build}/CPackConfig.cmake", cwd=folder)
        archive, = folder.glob("*.zip")
        with zipfile.ZipFile(archive) as package:
            package.extractall(folder)
        root = folder / archive.stem
        found = sorted(str(file.relative_to(root)) for file in root.rglob("*") if file.is_file())
        if found != sorted(FILES):
            sys.exit("the package holds\n  " + "\n  ".join(found))

        made = folder / "example-build"
        run(cmake, "-S", root / "example", "-B", made, "-G", "Ninja", "-DCMAKE_SYSTEM_NAME=Windows",
            f"-DCMAKE_CXX_COMPILER={compiler}",
            "-DCMAKE_CXX_FLAGS=-Wall -Wextra -Wpedantic -Werror -static")
        run(cmake, "--build", made)
        for library in (root / "bin").glob("*.dll"):
            shutil.copy(library, made)
        samples = pathlib.Path(picture).read_bytes()
        raw = folder / "clip.yuv"
        raw.write_bytes(samples * FRAMES)
        clip = folder / "clip.y4m"
        clip.write_bytes(b"YUV4MPEG2 W%d H%d F25:1\n" % (WIDTH, HEIGHT)
                         + (b"FRAME\n" + samples) * FRAMES)
        first = rectangles_of_example(run(*emulator, made / "example_host.exe",
                                          "tavro_fd_extension.dll", raw, WIDTH, HEIGHT, cwd=made))
        second = rectangles_of_application(run(*emulator, root / "bin" / "tavro-fd.exe", clip))
        if len(first) != FRAMES or first != second:
            sys.exit(f"the example found {first}, tavro-fd {second}")
        print(f"{archive.name}: {archive.stat().st_size} bytes, {len(found)} files; "
              f"the example finds {first[-1] or 'nothing'}")


if __name__ == "__main__":
    if len(sys.argv) < 7:
        sys.exit(__doc__)
    main(*sys.argv[1:])
