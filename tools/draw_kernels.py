#!/usr/bin/env python3
"""Draws docs/kernels.svg: what one step of each family of wide kernels covers, and its registers.

    tools/draw_kernels.py > docs/kernels.svg

A family is a row of FAMILIES: to the left the columns of an image row that one step reads and writes,
to the right the sixteen vector registers and what they hold in the inner loop.
"""

from typing import NamedTuple

REGISTERS = 16


class Family(NamedTuple):
    title: str  # the file's family
    subtitle: str  # the kernel that is drawn
    tile: int  # output columns of a step
    stride: int
    taps: list  # columns of the row, relative to a pixel's first tap
    outside: int  # how many of the columns read lie in the padding
    sums: int  # registers: sums, values of the input, weights
    values: int
    weights: int
    note: str


FAMILIES = [
    Family("Pixel list", "conv1x1_32x3", 3, 1, [0], 0, 12, 3, 1,
           "3 pixels x 32 channels; each weight vector is used up at once"),
    Family("Edge lanes", "conv3x3s1_16x4", 4, 1, [0, 1, 2], 1, 8, 1, 2,
           "4 pixels x 16 channels; a tap outside the image is a zero vector"),
    Family("Border zones", "conv3x3dil_16x4", 4, 1, [0, 2, 4], 0, 8, 1, 2,
           "4 pixels x 16 channels; columns with taps outside go by themselves"),
    Family("Rolling rows", "conv3x3bytes_16x4", 4, 2, [0, 1, 2], 1, 8, 1, 2,
           "4 pixels x 16 channels; three planar rows with zeros at the ends"),
    Family("Depthwise", "dwConv3x3s1_16x5", 5, 1, [0, 1, 2], 0, 10, 1, 3,
           "5 pixels x 16 channels; a loaded column serves every tap that shares it"),
]

FILLS = {"": "#ffffff", "read": "#bfe3ff", "outside": "#ffffff", "written": "#ffd591",
         "sum": "#ffd591", "value": "#bfe3ff", "weight": "#c6f0c2"}
FONTS = {"": 'font-size="13"', "title": 'font-size="15" font-weight="bold"',
         "name": 'font-size="13" font-family="monospace"', "small": 'font-size="12"'}

CELL, ROW, LEFT, RIGHT, WIDTH = 26, 130, 20, 430, 880


def text(x, y, content, font=""):
    return f'<text x="{x}" y="{y}" {FONTS[font]}>{content}</text>'


def square(x, y, look):
    return f'<rect x="{x}" y="{y}" width="{CELL}" height="{CELL}" {look}/>'


def cell(x, y, kind):
    dashes = ' stroke-dasharray="3 2"' if kind == "outside" else ""
    return square(x, y, f'fill="{FILLS[kind]}" stroke="#9aa5b1"{dashes}')


def frame(x, y):
    return square(x, y, 'fill="none" stroke="#d64545" stroke-width="2.5"')


def image_row(family, top):
    """The columns read above, the columns written below, the first pixel's taps framed in red."""
    read = {pixel * family.stride + tap for pixel in range(family.tile) for tap in family.taps}
    parts = [text(LEFT, top + 17, "read", "small"), text(LEFT, top + 57, "written", "small")]
    for column in range(max(read) + 1):
        kind = "outside" if column < family.outside else "read" if column in read else ""
        parts.append(cell(LEFT + 60 + column * CELL, top, kind))
    for tap in family.taps:
        parts.append(frame(LEFT + 60 + tap * CELL, top))
    middle = family.taps[len(family.taps) // 2]
    for pixel in range(family.tile):
        x = LEFT + 60 + (pixel * family.stride + middle) * CELL
        parts.append(cell(x, top + 40, "written"))
    parts.append(frame(LEFT + 60 + middle * CELL, top + 40))
    return parts


def registers(family, top):
    kinds = (["sum"] * family.sums + ["value"] * family.values + ["weight"] * family.weights)
    kinds += [""] * (REGISTERS - len(kinds))
    return [cell(RIGHT + index * CELL, top, kind) for index, kind in enumerate(kinds)]


def draw():
    height = len(FAMILIES) * ROW + 60
    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {height}" '
             f'width="{WIDTH}" height="{height}" role="img" '
             'aria-label="Tiles and registers of the wide kernels">',
             f'<rect width="{WIDTH}" height="{height}" fill="#f5f7fa"/>',
             '<g font-family="sans-serif" fill="#1f2933">']
    for index, family in enumerate(FAMILIES):
        top = index * ROW + 20
        used = family.sums + family.values + family.weights
        assert used <= REGISTERS, family.title
        parts += [text(LEFT, top + 14, family.title, "title"),
                  text(LEFT + 130, top + 14, family.subtitle, "name"),
                  text(RIGHT, top + 14, f"{family.sums} sums, {family.values} of input, "
                                        f"{family.weights} of weights: {used} of {REGISTERS}"),
                  text(RIGHT, top + 76, family.note, "small"),
                  *image_row(family, top + 32), *registers(family, top + 32)]
    bottom = height - 36
    for x, kind, what in ((LEFT, "sum", "sums, pixels written"), (220, "value", "input"),
                          (330, "weight", "weights"), (450, "outside", "padding")):
        parts += [cell(x, bottom, kind), text(x + CELL + 8, bottom + 18, what)]
    parts += [frame(580, bottom), text(580 + CELL + 8, bottom + 18, "the first pixel's taps")]
    return "\n".join([*parts, "</g>", "</svg>"])


if __name__ == "__main__":
    print(draw())
