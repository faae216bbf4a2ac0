#!/usr/bin/env python3
"""Makes the ZIP for Windows, and uses it as somebody would who has nothing else: builds the example
by its README with the package's own headers and libraries, runs it, and compares its rectangles with
those of tavro-fd.

usage: windows_zip_test.py CMAKE CPACK BUILD_FOLDER COMPILER PICTURE EMULATOR...
"""

import pathlib
import shutil
import sys
import tempfile
import zipfile

from example_run import Clip, expect_files, expect_same, files_in, run

FILES = """
    LICENSE README.md
    bin/libtavro-core.dll bin/tavro-fd.exe bin/tavro_fd_extension.dll
    example/CMakeLists.txt example/example_host.cpp
    include/tavro-fd/modules/face_detection/loader.h
    include/tavro-fd/host/core/face_rects.h include/tavro-fd/host/core/host_api.h
    include/tavro-fd/host/core/i420_frame.h
    include/tavro-fd/modules/face_detection/fd_wrapper.h
    include/tavro-fd/modules/face_detection/host_interface.h
    lib/cmake/TavroFd/TavroFdConfig.cmake lib/cmake/TavroFd/TavroFdConfigVersion.cmake
    lib/cmake/TavroFd/TavroFdTargets-release.cmake lib/cmake/TavroFd/TavroFdTargets.cmake
    lib/libtavro-core.def lib/libtavro-core.dll.a""".split()


def main(cmake, cpack, build, compiler, picture, *emulator):
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        run(cpack, "-G", "ZIP", "-B", folder, "--config", f"{build}/CPackConfig.cmake", cwd=folder)
        archive, = folder.glob("*.zip")
        with zipfile.ZipFile(archive) as package:
            package.extractall(folder)
        root = folder / archive.stem
        expect_files(files_in(root), FILES)

        made = folder / "example-build"
        run(cmake, "-S", root / "example", "-B", made, "-G", "Ninja", "-DCMAKE_SYSTEM_NAME=Windows",
            f"-DCMAKE_PREFIX_PATH={root}", f"-DCMAKE_CXX_COMPILER={compiler}",
            "-DCMAKE_CXX_FLAGS=-Wall -Wextra -Wpedantic -Werror")
        run(cmake, "--build", made)
        for library in (root / "bin").glob("*.dll"):
            shutil.copy(library, made)
        clip = Clip(picture, folder)
        faces = clip.by_example([*emulator, made / "example_host.exe"], "tavro_fd_extension.dll",
                                cwd=made)
        expect_same(faces, clip.by_application([*emulator, root / "bin" / "tavro-fd.exe"]))
        print(f"{archive.name}: {archive.stat().st_size} bytes; the example finds {faces[-1]}")


if __name__ == "__main__":
    if len(sys.argv) < 7:
        sys.exit(__doc__)
    main(*sys.argv[1:])
