#!/usr/bin/env python3
"""Makes the Debian packages and checks what they need and hold; what is in them then runs from a
folder. tests/packages/clean_root installs them into a Debian of their own, which takes root.

usage: debian_test.py CPACK BUILD_FOLDER PICTURE
"""

import pathlib
import re
import sys
import tempfile

from example_run import Clip, files_in, run

# For each package: what it may depend on, and some of what it must hold. The library and what is
# built with it bring nothing along but the C++ runtime.
RUNTIME = {"libc6", "libgcc-s1", "libstdc++6"}
PACKAGES = {
    "libtavro-fd1": (RUNTIME, ["libtavro-core.so.1", "libtavro_fd_extension.so", "copyright",
                               "MODEL_CARD.md"]),
    "libtavro-fd-dev": ({"libtavro-fd1"}, ["libtavro-core.so", "tavro-fd.pc", "host_api.h",
                                           "TavroFdConfig.cmake", "copyright"]),
    "tavro-fd": (RUNTIME | {"libtavro-fd1", "libpng16-16", "libavcodec59", "libavdevice59",
                            "libavformat59", "libavutil57", "libmicrohttpd12", "libswscale6"},
                 ["tavro-fd", "tavro-image", "copyright"]),
    "python3-tavrofd": (RUNTIME | {"libtavro-fd1", "python3", "python3-numpy"},
                        ["__init__.py", "_native.pyi", "py.typed", "copyright"]),
    "gstreamer1.0-tavro-fd": (RUNTIME | {"libtavro-fd1", "libglib2.0-0", "libgstreamer1.0-0",
                                         "libgstreamer-plugins-base1.0-0"},
                              ["libgsttavrofacedetect.so", "copyright"]),
}


def check(package, folder):
    """The faults of a package, which is unpacked into the folder."""
    name = run("dpkg-deb", "--field", package, "Package").strip()
    if name not in PACKAGES:
        return [f"an unknown package {name}"]
    allowed, needed = PACKAGES[name]
    depends = set(re.findall(r"(?:^|, )([a-z0-9.+-]+)",
                             run("dpkg-deb", "--field", package, "Depends").strip()))
    run("dpkg-deb", "--extract", package, folder / name)
    run("dpkg-deb", "--extract", package, folder / "together")
    held = {pathlib.Path(file).name for file in files_in(folder / name)}
    return ([f"{name} depends on {extra}" for extra in sorted(depends - allowed)]
            + [f"{name} lacks {file}" for file in needed if file not in held])


def main(cpack, build, picture):
    with tempfile.TemporaryDirectory() as temporary:
        folder = pathlib.Path(temporary)
        run(cpack, "-G", "DEB", "-B", folder, "--config", f"{build}/CPackConfig.cmake", cwd=folder)
        packages = sorted(folder.glob("*.deb"))
        faults = [fault for package in packages for fault in check(package, folder)]
        if len(packages) < 3 or faults:
            sys.exit("\n".join([f"{len(packages)} packages", *faults]))
        print(Clip(picture, folder).by_application([folder / "together/usr/bin/tavro-fd"]))


if __name__ == "__main__":
    if len(sys.argv) != 4:
        sys.exit(__doc__)
    main(*sys.argv[1:])
