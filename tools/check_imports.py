#!/usr/bin/env python3
"""Checks that the files of each room include only what docs/architecture.md lets them: rooms below
their own. Prints every other #include and fails if there is one.
"""

import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
BOUNDARY = ("modules/face_detection/host_interface.h modules/face_detection/fd_wrapper.h "
            "modules/face_detection/loader.h")

# Each room, and what it may include beside its own files: rooms without the folders in them that
# have a row here, or single headers. What has no row (tests, tools, bench, fuzz, training) may
# include everything.
ROOMS = {
    "engine": "",
    "engine/core": "engine",
    "engine/ref": "engine engine/core",
    "engine/simd": "engine engine/core",
    "image": "engine/cpu_info.h",
    "impl_x86": "engine engine/core engine/ref engine/simd",
    "modules": "engine image impl_x86",
    "host/core": f"image {BOUNDARY}",
    "host/app/platform": "host/core image",
    "host/app/input": "host/app/platform host/core",
    "host/app/search": f"host/app/platform host/core {BOUNDARY}",
    "host/app/output": f"host/app/platform host/app/input host/app/search host/core {BOUNDARY}",
    "host/app": "host/app/platform host/app/input host/app/search host/app/output host/core",
    "host/image_app": "host/app/help_formatter.h host/app/platform image",
    "plugins": f"host/core image {BOUNDARY}",
    "examples": f"host/core {BOUNDARY}",
}


def room_of(path):
    """The innermost folder that has a row; None if none has."""
    return next((str(folder) for folder in path.parents if str(folder) in ROOMS), None)


def main():
    listing = subprocess.run(["git", "ls-files", "*.h", "*.cpp"], cwd=ROOT, check=True,
                             capture_output=True, text=True)
    faults = []
    for path in map(pathlib.PurePath, listing.stdout.splitlines()):
        room = room_of(path)
        if room is None or not (ROOT / path).is_file():
            continue
        for number, line in enumerate((ROOT / path).read_text(encoding="utf-8").splitlines(), 1):
            included = re.match(r'#include "(.+)"', line)
            if included is None:
                continue
            target = room_of(pathlib.PurePath(included[1]))
            if target != room and not {target, included[1]} & set(ROOMS[room].split()):
                faults.append(f"{path}:{number}: {room} may not include {included[1]}")
    print("\n".join(faults), end="\n" if faults else "")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
