#pragma once

// The row kernels that take packed pixels apart and move samples between layouts; the rules of
// row_kernels.h hold for them, too. Colours follow BT.601 in limited range, with 7 bits in the
// block forms and 8 in the plain ones, so that the two forms of lumaRow and of chromaRow differ;
// fineLumaRow has 8 in both.

#include <cstddef>

#include "image/pixel_layout.h"

namespace TavroRTC::FDModule {

/// One luma sample a pixel.
///   block  ((33 R + 65 G + 13 B) >> 7) + 16
///   plain  (66 R + 129 G + 25 B + 0x1080) >> 8
using LumaRow = void(const uint8_t* src, uint8_t* dstY, int32_t width);

/// One U and one V sample for two by two pixels, the second row `srcStride` bytes further on; an
/// odd width's last column counts twice. With the mean of each colour over the pixels:
///   block  mean: average of the two vertical averages, each rounded up
///          U ((112 B - 74 G - 38 R) >> 8) + 128, V ((112 R - 94 G - 18 B) >> 8) + 128
///   plain  mean: sum / 4, of an odd last column sum / 2
///          (... + 0x8080) >> 8 instead
using ChromaRow = void(const uint8_t* src, ptrdiff_t srcStride, uint8_t* dstU, uint8_t* dstV,
                       int32_t width);

/// Packed pixels to packed pixels, by PackedOp.
using PackedRow = void(const uint8_t* src, uint8_t* dst, int32_t width);

/// first[0], second[0], first[1], second[1], ... from `width` samples of each.
using MergeChromaRow = void(const uint8_t* first, const uint8_t* second, uint8_t* dst,
                            int32_t width);
/// The reverse, to `width` samples of each.
using SplitChromaRow = void(const uint8_t* src, uint8_t* first, uint8_t* second, int32_t width);

/// Choosers; null for a layout or an operation that has no kernel.
LumaRow* chooseLumaRow(int32_t width, const PixelLayout& layout);
ChromaRow* chooseChromaRow(int32_t width, const PixelLayout& layout);
PackedRow* choosePackedRow(int32_t width, PackedOp op);
MergeChromaRow* chooseMergeChromaRow(int32_t width);
SplitChromaRow* chooseSplitChromaRow(int32_t width);

/// Luma of rgb24 whose block form, too, gives the bytes of the plain one.
LumaRow* chooseFineLumaRow(int32_t width);

}  // namespace TavroRTC::FDModule
