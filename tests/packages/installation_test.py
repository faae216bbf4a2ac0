#!/usr/bin/env python3
"""Installs the project into a folder, moves the folder, and builds the example host against what is
there, by find_package and by pkg-config. Both must find the faces that the installed tavro-fd finds,
and so must the Python package, where it is named with its interpreter.

usage: installation_test.py CMAKE COMPILER BUILD_FOLDER EXAMPLE_FOLDER PICTURE [PYTHON]
"""

import os
import pathlib
import re
import sys
import tempfile

from example_run import FRAMES, HEIGHT, WIDTH, Clip, expect_same, run

WARNINGS = "-Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror"


def with_find_package(cmake, compiler, example, root, build):
    """The example's program and the module, by the CMake files of the installation."""
    said = run(cmake, "-S", example, "-B", build, "-G", "Ninja", f"-DCMAKE_PREFIX_PATH={root}",
               f"-DCMAKE_CXX_COMPILER={compiler}", f"-DCMAKE_CXX_FLAGS={WARNINGS}")
    run(cmake, "--build", build)
    return build / "example_host", re.search(r"detector is (\S+)", said).group(1)


def with_pkg_config(compiler, example, root, program):
    """The same by pkg-config alone."""
    file, = root.rglob("tavro-fd.pc")
    environment = dict(os.environ, PKG_CONFIG_PATH=str(file.parent))

    def ask(*options):
        return run("pkg-config", *options, "tavro-fd", env=environment).split()

    run(compiler, "-std=c++20", *WARNINGS.split(), example / "example_host.cpp", "-o", program,
        *ask("--cflags", "--libs"))
    return program, ask("--variable=module")[0], ask("--variable=libdir")[0]


def by_python(python, root, clip):
    program = f"""if True:
        import tavrofd
        detector = tavrofd.Detector()
        clip = open({str(clip.raw)!r}, "rb")
        for _ in range({FRAMES}):
            faces = detector.detect(clip.read({WIDTH * HEIGHT * 3 // 2}), ({WIDTH}, {HEIGHT}))
            print("faces:", *(tuple(face) for face in faces.tolist()))"""
    packages = dict(os.environ, PYTHONPATH=str(root / "lib/python3/dist-packages"))
    return re.findall(r"^faces: (.*)$", run(python, "-c", program, env=packages), re.MULTILINE)


def main(cmake, compiler, build, example, picture, python=None):
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        run(cmake, "--install", build, "--prefix", folder / "installed")
        root = (folder / "installed").rename(folder / "moved")
        example = pathlib.Path(example)
        clip = Clip(picture, folder)
        expected = clip.by_application([root / "bin" / "tavro-fd"])

        program, module = with_find_package(cmake, compiler, example, root, folder / "example")
        expect_same(clip.by_example([program], module), expected)

        program, module, libraries = with_pkg_config(compiler, example, root, folder / "by_pc")
        paths = dict(os.environ, LD_LIBRARY_PATH=libraries)
        expect_same(clip.by_example([program], module, env=paths), expected)
        if python:
            expect_same(by_python(python, root, clip), expected)


if __name__ == "__main__":
    if len(sys.argv) not in (6, 7):
        sys.exit(__doc__)
    main(*sys.argv[1:])
