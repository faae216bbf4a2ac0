from collections.abc import Sequence
from typing import Any, Literal, Protocol

import numpy
import numpy.typing
from typing_extensions import Buffer, TypeAlias

__version__: str

Format: TypeAlias = Literal["i420", "nv12", "bgr", "rgb", "bgra", "rgba", "gray"]

class ArrayInterface(Protocol):
    """A picture of PIL, for example."""

    @property
    def __array_interface__(self) -> dict[str, Any]: ...

Samples: TypeAlias = Buffer | ArrayInterface

def find_detector() -> str: ...

class Detector:
    def __init__(
        self,
        module: str,
        smallest_face: int,
        max_windows: int,
        threads: int,
        roi: Sequence[tuple[int, int, int, int]],
        format: Format | None,
        numbers: bool,
    ) -> None: ...
    def detect(
        self,
        frame: Samples | tuple[Samples, Samples, Samples] | tuple[Samples, Samples] | list[Samples],
        size: tuple[int, int] | None = ...,
        *,
        format: Format | None = ...,
        time: float | None = ...,
    ) -> numpy.typing.NDArray[numpy.int32]: ...
    def reset(self) -> None: ...
