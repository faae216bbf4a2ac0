"""From the planes of a frame to the bytes that the network sees, as the detector does it.

The same integers as the module's scaler and its BT.601 conversion in their vector forms, for
batches of frames of one size on any device. A test compares them with the module byte for byte.
"""

import torch

from training.contract import SIDE

ONE = 1 << 16  # a whole sample, in the fixed point of the scaler's positions


def positions(source, target, linear=False):
    """Where the scaler looks along one axis: indexes, 16-bit fractions.

    Where only the columns change it uses its linear filter, which looks half a sample further on.
    """
    if linear:
        step = source * ONE // target
        start = step >> 1
    elif target <= source:
        step = source * ONE // target
        start = (step >> 1) - ONE // 2
    else:
        step = (source * ONE - (ONE + 1)) // (target - 1)
        start = 0
    at = start + step * torch.arange(target)
    return at >> 16, at & (ONE - 1)


def blend(upper, lower, fraction):
    """Rows, weighted in 256ths."""
    return (upper * (256 - fraction) + lower * fraction + 128) >> 8


def scale_columns(plane, width, linear=False):
    """Each row on its own, weighted in 128ths; the edges see themselves again."""
    last = plane.shape[-1] - 1
    index, fraction = (values.to(plane.device) for values in positions(last + 1, width, linear))
    fraction = fraction >> 9
    left = plane[..., index.clamp(0, last)]
    right = plane[..., (index + 1).clamp(0, last)]
    return (left * (127 - fraction) + right * fraction) >> 7


def scale_rows(plane, height):
    last = plane.shape[-2] - 1
    index, fraction = (values.to(plane.device) for values in positions(last + 1, height))
    upper, lower = plane[..., index.clamp(0, last), :], plane[..., (index + 1).clamp(0, last), :]
    return blend(upper, lower, (fraction >> 8)[:, None])


def stretch_rows(plane, height):
    """Rows of a plane whose width stays: these positions start at the first row."""
    source = plane.shape[-2]
    limit = (source - 1) * ONE - 1 if source > 1 else 0
    at = (torch.arange(height) * (source * ONE // height)).clamp(0, limit).to(plane.device)
    upper = plane[..., at >> 16, :]
    lower = plane[..., ((at >> 16) + 1).clamp(max=source - 1), :]
    return blend(upper, lower, (at >> 8 & 255)[:, None])


def scale_plane(plane, height, width):
    """... x h x w integers from 0 to 255 -> ... x height x width."""
    source = tuple(plane.shape[-2:])
    if source == (height, width):
        return plane
    if source[1] == width:
        return stretch_rows(plane, height)
    if source == (2 * height, 2 * width):
        return (plane[..., 0::2, 0::2] + plane[..., 0::2, 1::2] + plane[..., 1::2, 0::2] +
                plane[..., 1::2, 1::2] + 2) >> 2
    if source[0] == height:
        return scale_columns(plane, width, linear=True)
    if height <= source[0]:
        return scale_columns(scale_rows(plane, height), width)
    return scale_rows(scale_columns(plane, width), height)


# Offset and the weights of U and V of each colour, in 64ths: standard BT.601, limited range.
LUMA_GAIN = 18997
COLOURS = [(-17544, -128, 0), (8696, 25, 52), (-14216, 0, -102)]


def to_colours(y, u, v):
    """Planes n x 192 x 192 and twice n x 96 x 96 -> bytes n x 192 x 192 x 3: B, G, R."""
    luma = y * LUMA_GAIN * 257 >> 16
    u, v = (plane.repeat_interleave(2, -1).repeat_interleave(2, -2) for plane in (u, v))
    colours = [(bias - (of_u * u + of_v * v) + luma) >> 6 for bias, of_u, of_v in COLOURS]
    return torch.stack(colours, -1).clamp_(0, 255).to(torch.uint8)


def detector_input(y, u, v):
    """Planes of n frames, integer tensors n x h x w and two n x ceil(h/2) x ceil(w/2)."""
    y, u, v = (plane.to(torch.int32) for plane in (y, u, v))
    half = SIDE // 2
    return to_colours(scale_plane(y, SIDE, SIDE), scale_plane(u, half, half),
                     scale_plane(v, half, half))
