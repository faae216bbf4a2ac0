from collections.abc import Sequence

import numpy
import numpy.typing
from typing_extensions import Buffer

__version__: str

def find_detector() -> str: ...

class Detector:
    def __init__(
        self,
        module: str,
        smallest_face: int,
        max_windows: int,
        threads: int,
        roi: Sequence[tuple[int, int, int, int]],
    ) -> None: ...
    def detect(
        self,
        frame: Buffer | tuple[Buffer, Buffer, Buffer] | list[Buffer],
        size: tuple[int, int] | None = ...,
    ) -> numpy.typing.NDArray[numpy.int32]: ...
    def reset(self) -> None: ...
