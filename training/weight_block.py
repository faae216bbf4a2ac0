"""The weight block: all constant tensors of the network in one file, as the engine embeds it.

Tensors stand in the byte-wise order of their names, each as little-endian float32 in the order
output channel, input channel, kernel row, kernel column, and each begins at a 128-byte boundary.
The block ends with the last tensor's padding left out.
"""

import numpy

from training.contract import WEIGHT_BYTES

ALIGNMENT = 128


def offsets(shapes):
    """Where each tensor begins and where the last one ends: ({name: byte}, end).

    `shapes` has the extents by name.
    """
    begin, end = {}, 0
    for name in sorted(shapes, key=str.encode):
        begin[name] = -(-end // ALIGNMENT) * ALIGNMENT
        end = begin[name] + 4 * int(numpy.prod(shapes[name]))
    return begin, end


def floats(block, name):
    """All floats of the block's bytes, padding included."""
    if len(block) != WEIGHT_BYTES:
        raise ValueError(f"{name}: has {len(block)} bytes, a weight block has {WEIGHT_BYTES}")
    values = numpy.frombuffer(block, "<f4")
    if not numpy.isfinite(values).all():
        raise ValueError(f"{name}: has values that are not finite")
    return values


def content(path):
    """All floats of the file, padding included."""
    with open(path, "rb") as file:
        return floats(file.read(), path)


def tensors(block, name, shapes):
    """The tensors of the block's bytes by name, float32, with the given extents."""
    values = floats(block, name)
    begin, _ = offsets(shapes)
    return {name: numpy.frombuffer(values, "<f4", int(numpy.prod(shape)), begin[name])
            .reshape(shape).copy() for name, shape in shapes.items()}


def read(path, shapes):
    """The tensors of the file by name."""
    with open(path, "rb") as file:
        return tensors(file.read(), path, shapes)


def write(path, tensors):
    """Writes the tensors, a mapping from name to array."""
    begin, end = offsets({name: values.shape for name, values in tensors.items()})
    block = bytearray(-(-end // ALIGNMENT) * ALIGNMENT)
    if len(block) != WEIGHT_BYTES:
        raise ValueError(f"these tensors fill {len(block)} bytes, not {WEIGHT_BYTES}")
    for name, values in tensors.items():
        if not numpy.isfinite(values).all():
            raise ValueError(f"{name} has values that are not finite")
        data = numpy.ascontiguousarray(values, "<f4").tobytes()
        block[begin[name]:begin[name] + len(data)] = data
    with open(path, "wb") as file:
        file.write(block)
