#!/usr/bin/env python3
"""Compiles each header by itself, as whoever includes it first does.

usage: compile_alone.py COMPILER ROOT

Headers of a package that isn't installed are left out, and named.
"""

import pathlib
import shlex
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor

FOLDERS = ("engine", "image", "impl_x86", "modules", "host", "plugins")
# What a folder's headers need beside the standard library.
PACKAGES = {"host/app/ffmpeg": "libavformat libavcodec libswscale", "plugins/gstreamer": "gstreamer-video-1.0",
            "plugins/python": "python3"}
# The vector types of one instruction set, for files that are compiled for it.
FLAGS = {"impl_x86/avx_vectors.h": ["-mavx", "-mfma"], "image/block_access.h": ["-mssse3"]}


def packageFlags(header):
    """Compiler flags, or None if the package isn't there."""
    for folder, packages in PACKAGES.items():
        if header.startswith(folder):
            found = subprocess.run(["pkg-config", "--cflags", *packages.split()],
                                   capture_output=True, text=True, check=False)
            return shlex.split(found.stdout) if found.returncode == 0 else None
    return []


def compileAlone(compiler, root, header):
    """The compiler's complaint; empty if there is none, None if the header was left out."""
    flags = packageFlags(header)
    if flags is None or "/windows/" in header:
        return None
    command = [compiler, "-std=c++20", "-fsyntax-only", "-x", "c++", "-Wall", "-Wextra",
               "-Wno-unused-function", "-fvisibility=hidden", "-I", str(root), *flags,
               *FLAGS.get(header, []), "-include", header, "/dev/null"]
    return subprocess.run(command, cwd=root, capture_output=True, text=True, check=False).stderr


def main(compiler, root):
    root = pathlib.Path(root)
    headers = [str(path.relative_to(root)) for folder in FOLDERS
               for path in sorted((root / folder).rglob("*.h"))]
    with ThreadPoolExecutor(2) as pool:
        complaints = list(pool.map(lambda header: compileAlone(compiler, root, header), headers))
    left = [header for header, complaint in zip(headers, complaints) if complaint is None]
    wrong = [complaint for complaint in complaints if complaint]
    print(f"{len(headers) - len(left)} headers compiled alone, {len(wrong)} can't be; "
          f"left out: {' '.join(left) or 'none'}")
    print("\n".join(wrong))
    return 1 if wrong or len(left) == len(headers) else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:3]))
