"""A face detector for live video.

>>> import tavrofd
>>> detector = tavrofd.Detector(format="bgr")   # one for each video: it follows the faces
>>> for frame in frames:                # numpy arrays as OpenCV has them, or any buffers of uint8
...     for left, top, right, bottom in detector.detect(frame):
...         ...                         # pixels of the frame
>>> detector = tavrofd.Detector(smallest_face=24)   # smaller faces, through windows of the frame
>>> detector.detect(PIL.Image.open("group.jpg"))
"""

from __future__ import annotations

import os
import pathlib
from collections.abc import Sequence
from typing import TYPE_CHECKING

from . import _native

if TYPE_CHECKING:
    from ._native import Format

__all__ = ["Detector", "module_file"]
__version__ = _native.__version__


def module_file() -> pathlib.Path:
    """The file of the detector that belongs to this package: the one beside libtavro-core, in an
    installation as in a build tree. Raises FileNotFoundError if there is none."""
    try:
        return pathlib.Path(_native.find_detector())
    except RuntimeError as missing:
        raise FileNotFoundError(f"{missing}; name it with Detector(module=...)") from None


class Detector(_native.Detector):
    """One detector. It remembers the faces from frame to frame, so each video needs its own; several
    may run at once, each on a thread of its own."""

    def __init__(self, module: str | os.PathLike[str] | None = None, *, smallest_face: int = 0,
                 max_windows: int = 64, threads: int = 0,
                 roi: Sequence[tuple[int, int, int, int]] = (), format: Format | None = None,
                 numbers: bool = False) -> None:
        """Takes the detector from the file `module`, or from module_file() if there is no name.

        By itself it sees a frame as 192x192 and finds faces that cover about 12 of those pixels.
        With `smallest_face`, in pixels of the frame, it looks through windows as well: parts of the
        frame in which such a face is large enough, each with about the cost of a whole frame. There
        are `max_windows` at most, even if that doesn't show the smallest faces.

        `roi` names regions of the frame, (x, y, width, height), to look there alone. `threads`
        windows are looked at at once, 0 for one on each core; the result doesn't depend on it.

        `format` says what the samples of all frames are: "i420", "nv12", "bgr", "rgb", "bgra",
        "rgba" or "gray". detect() may be told another one. `numbers` gives each face a number.

        Raises RuntimeError if the file isn't a detector, ValueError for an unknown format and
        numbers that are out of range."""
        super().__init__(os.fspath(module if module is not None else module_file()),
                         smallest_face, max_windows, threads, roi, format, numbers)
