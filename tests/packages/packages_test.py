#!/usr/bin/env python3
"""What is installed and packed, used as somebody would who has nothing else: whatever finds faces in a
short clip must find those that the packed tavro-fd finds.

usage: packages_test.py installation BUILD PICTURE CMAKE COMPILER EXAMPLE [PYTHON]
       packages_test.py debian       BUILD PICTURE CPACK
       packages_test.py windows_zip  BUILD PICTURE CPACK CMAKE COMPILER EMULATOR...

BUILD is a build folder, EXAMPLE the example host's sources, PYTHON the interpreter of the binding.
PICTURE is I420 of 160x120 pixels with one face.
"""

import json
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import zipfile

WIDTH, HEIGHT, FRAMES = 160, 120, 3
WARNINGS = "-Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror"

# For each Debian package: what it may depend on, and some of what it must hold. The library and what
# is built with it bring nothing along but the C++ runtime.
RUNTIME = {"libc6", "libgcc-s1", "libstdc++6"}
DEBIAN_PACKAGES = {
    "libtavro-fd1": (RUNTIME, ["libtavro-core.so.1", "libtavro_fd_extension.so",
                               "libtavro_fd_extension_square.so", "copyright",
                               "MODEL_CARD.md"]),
    "libtavro-fd-dev": ({"libtavro-fd1"}, ["libtavro-core.so", "tavro-fd.pc", "host_api.h",
                                           "TavroFdConfig.cmake", "copyright"]),
    "tavro-fd": (RUNTIME | {"libtavro-fd1", "libpng16-16", "libavcodec59", "libavdevice59",
                            "libavformat59", "libavutil57", "libmicrohttpd12", "libswscale6"},
                 ["tavro-fd", "tavro-image", "tavro-fd.1", "tavro-image.1", "copyright"]),
    "python3-tavrofd": (RUNTIME | {"libtavro-fd1", "python3", "python3-numpy"},
                        ["__init__.py", "_native.pyi", "py.typed", "copyright"]),
    "gstreamer1.0-tavro-fd": (RUNTIME | {"libtavro-fd1", "libglib2.0-0", "libgstreamer1.0-0",
                                         "libgstreamer-plugins-base1.0-0"},
                              ["libgsttavrofacedetect.so", "copyright"]),
}
WINDOWS_FILES = """
    LICENSE README.md
    bin/libtavro-core.dll bin/tavro-fd.exe
    bin/tavro_fd_extension.dll bin/tavro_fd_extension_square.dll
    example/CMakeLists.txt example/example_host.cpp
    include/tavro-fd/modules/face_detection/loader.h
    include/tavro-fd/host/core/face_rects.h include/tavro-fd/host/core/host_api.h
    include/tavro-fd/host/core/i420_frame.h
    include/tavro-fd/modules/face_detection/fd_wrapper.h
    include/tavro-fd/modules/face_detection/host_interface.h
    lib/cmake/TavroFd/TavroFdConfig.cmake lib/cmake/TavroFd/TavroFdConfigVersion.cmake
    lib/cmake/TavroFd/TavroFdTargets-release.cmake lib/cmake/TavroFd/TavroFdTargets.cmake
    lib/libtavro-core.def lib/libtavro-core.dll.a"""


def run(*command, **options):
    """The standard output of a command; its whole output and the end of the test if it fails."""
    words = [str(word) for word in command]
    done = subprocess.run(words, capture_output=True, text=True, **options)
    if done.returncode != 0:
        sys.exit(f"{' '.join(words)}: {done.returncode}\n{done.stdout}{done.stderr}")
    return done.stdout


def environment(**variables):
    return dict(os.environ, **{name: str(value) for name, value in variables.items()})


class Clip:
    """One picture several times over, as raw samples and as a Y4M file; the corners of the faces in
    each frame, first by tavro-fd, whose command is `application`."""

    def __init__(self, picture, folder, *application):
        samples = pathlib.Path(picture).read_bytes()
        self.raw, y4m = folder / "clip.yuv", folder / "clip.y4m"
        self.raw.write_bytes(samples * FRAMES)
        y4m.write_bytes(b"YUV4MPEG2 W%d H%d F25:1\n" % (WIDTH, HEIGHT)
                        + (b"FRAME\n" + samples) * FRAMES)
        results = [json.loads(line) for line in run(*application, y4m).splitlines()]
        self.faces = [[face[corner] for face in result["faces"]
                       for corner in ("left", "top", "right", "bottom")] for result in results]
        if len(self.faces) != FRAMES or not any(self.faces):
            sys.exit(f"{FRAMES} frames with a face gave {self.faces}")

    def expect(self, text):
        """The same faces in the lines that begin with "frame N:"."""
        found = [[int(number) for number in re.findall(r"-?\d+", re.sub(r"face \d+", "", line))]
                 for line in re.findall(r"^frame \d+:(.*)$", text, re.MULTILINE)]
        if found != self.faces:
            sys.exit(f"rectangles that should be the same:\n  {found}\n  {self.faces}")

    def expect_of_example(self, *command, **options):
        self.expect(run(*command, self.raw, WIDTH, HEIGHT, **options))

    def expect_of_python(self, python, packages):
        self.expect(run(python, "-c", f"""if True:
            import tavrofd
            detector = tavrofd.Detector(format="i420")
            clip = open({str(self.raw)!r}, "rb")
            for i in range({FRAMES}):
                faces = detector.detect(clip.read({WIDTH * HEIGHT * 3 // 2}), ({WIDTH}, {HEIGHT}))
                print(f"frame {{i}}:", *faces.tolist())""", env=environment(PYTHONPATH=packages)))


def files_in(folder):
    """Names of the files and links below a folder."""
    return {str(file.relative_to(folder)) for file in folder.rglob("*")
            if file.is_file() or file.is_symlink()}


def installation(folder, build, picture, cmake, compiler, example, python=None):
    """Installs the project, moves the folder, and builds the example against what is there, by
    find_package and by pkg-config. The Python package must work there as well."""
    run(cmake, "--install", build, "--prefix", folder / "installed")
    root = (folder / "installed").rename(folder / "moved")
    clip = Clip(picture, folder, root / "bin" / "tavro-fd")

    made = folder / "example"
    said = run(cmake, "-S", example, "-B", made, "-G", "Ninja", f"-DCMAKE_PREFIX_PATH={root}",
               f"-DCMAKE_CXX_COMPILER={compiler}", f"-DCMAKE_CXX_FLAGS={WARNINGS}")
    run(cmake, "--build", made)
    clip.expect_of_example(made / "example_host", re.search(r"detector is (\S+)", said)[1])
    Clip(picture, folder, root / "bin" / "tavro-fd", "--smallest-face", "6").expect_of_example(
        made / "example_windows", "6")

    file, = root.rglob("tavro-fd.pc")

    def ask(*options):
        return run("pkg-config", *options, "tavro-fd",
                   env=environment(PKG_CONFIG_PATH=file.parent)).split()

    run(compiler, "-std=c++20", *WARNINGS.split(), f"{example}/example_host.cpp", "-o",
        folder / "by_pc", *ask("--cflags", "--libs"))
    clip.expect_of_example(folder / "by_pc", *ask("--variable=module"),
                           env=environment(LD_LIBRARY_PATH=ask("--variable=libdir")[0]))
    if python:
        clip.expect_of_python(python, root / "lib/python3/dist-packages")


def debian(folder, build, picture, cpack):
    """Makes the Debian packages; what is in them runs from a folder. tests/packages/clean_root
    installs them into a Debian of their own, which takes root."""
    run(cpack, "-G", "DEB", "-B", folder, "--config", f"{build}/CPackConfig.cmake", cwd=folder)
    packages = sorted(folder.glob("*.deb"))
    faults = [] if len(packages) >= 3 else [f"{len(packages)} packages"]
    for package in packages:
        name, depends = (run("dpkg-deb", "--field", package, field).strip()
                         for field in ("Package", "Depends"))
        allowed, needed = DEBIAN_PACKAGES[name]
        run("dpkg-deb", "--extract", package, folder / name)
        run("dpkg-deb", "--extract", package, folder / "together")
        held = {pathlib.Path(file).name for file in files_in(folder / name)}
        extra = set(re.findall(r"(?:^|, )([a-z0-9.+-]+)", depends)) - allowed
        faults += [f"{name} depends on {other}" for other in sorted(extra)]
        faults += [f"{name} lacks {file}" for file in needed if file not in held]
    if faults:
        sys.exit("\n".join(faults))
    Clip(picture, folder, folder / "together/usr/bin/tavro-fd")


def windows_zip(folder, build, picture, cpack, cmake, compiler, *emulator):
    """Makes the ZIP for Windows, and builds the example by its README with the package's own headers
    and libraries."""
    run(cpack, "-G", "ZIP", "-B", folder, "--config", f"{build}/CPackConfig.cmake", cwd=folder)
    archive, = folder.glob("*.zip")
    with zipfile.ZipFile(archive) as package:
        package.extractall(folder)
    root = folder / archive.stem
    if surprises := files_in(root) ^ set(WINDOWS_FILES.split()):
        sys.exit(f"missing or unexpected: {sorted(surprises)}")

    made = folder / "example-build"
    run(cmake, "-S", root / "example", "-B", made, "-G", "Ninja", "-DCMAKE_SYSTEM_NAME=Windows",
        f"-DCMAKE_PREFIX_PATH={root}", f"-DCMAKE_CXX_COMPILER={compiler}",
        "-DCMAKE_CXX_FLAGS=-Wall -Wextra -Wpedantic -Werror")
    run(cmake, "--build", made)
    for library in (root / "bin").glob("*.dll"):
        shutil.copy(library, made)
    clip = Clip(picture, folder, *emulator, root / "bin" / "tavro-fd.exe")
    clip.expect_of_example(*emulator, made / "example_host.exe", "tavro_fd_extension.dll", cwd=made)


if __name__ == "__main__":
    if len(sys.argv) < 5 or sys.argv[1] not in ("installation", "debian", "windows_zip"):
        sys.exit(__doc__)
    with tempfile.TemporaryDirectory() as temporary:
        globals()[sys.argv[1]](pathlib.Path(temporary), *sys.argv[2:])
