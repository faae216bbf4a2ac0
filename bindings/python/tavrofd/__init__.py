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
import sysconfig

from . import _native

__all__ = ["Detector", "module_file"]
__version__ = _native.__version__

_NAME = "libtavro_fd_extension.so"


def module_file() -> pathlib.Path:
    """The file of the detector that belongs to this package: beside it, in the library folder of the
    same installation, or in the same build tree. Raises FileNotFoundError if there is none."""
    here = pathlib.Path(__file__).resolve().parent
    libraries = here.parents[2]
    folders = [here, libraries, libraries / (sysconfig.get_config_var("MULTIARCH") or "."),
               libraries / "modules" / "face_detection"]
    for folder in folders:
        if (folder / _NAME).is_file():
            return folder / _NAME
    places = ", ".join(str(folder) for folder in folders)
    raise FileNotFoundError(f"the detector {_NAME} isn't in {places}; name it with Detector(module=...)")


class Detector(_native.Detector):
    """One detector. It remembers the faces from frame to frame, so each video needs its own; several
    may run at once, each on a thread of its own."""

    def __init__(self, module: str | os.PathLike[str] | None = None) -> None:
        """Takes the detector from the file `module`, or from module_file() if there is no name.
        Raises RuntimeError if the file isn't a detector."""
        super().__init__(os.fspath(module if module is not None else module_file()))
