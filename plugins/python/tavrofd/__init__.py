"""A face detector for live video.

>>> import tavrofd
>>> detector = tavrofd.Detector()       # one for each video: it follows the faces
>>> for frame in frames:                # I420 or BGR, numpy arrays or any buffers of uint8
...     for left, top, right, bottom in detector.detect(frame):
...         ...                         # pixels of the frame
"""

from __future__ import annotations

import os
import pathlib

from . import _native

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

    def __init__(self, module: str | os.PathLike[str] | None = None) -> None:
        """Takes the detector from the file `module`, or from module_file() if there is no name.
        Raises RuntimeError if the file isn't a detector."""
        super().__init__(os.fspath(module if module is not None else module_file()))
