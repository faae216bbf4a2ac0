#pragma once

// All work on samples happens in row kernels: functions that handle one row and keep nothing. Every
// family of kernels has a plain form, sample by sample, and most have a block form on 128-bit
// vectors. A chooser picks by the row's width: a whole number of blocks gets the block form, any
// other width the block form with a tail (row_tails.h). To add a kernel, write its forms and add a
// row to the tables of row_kernel_selection.cpp.
//
// Kernels read and write the samples of their row and no others. A width below 1 does nothing.

#include <cstddef>

#include "image/image_desc.h"
#include "image/yuv_table.h"

namespace TavroRTC::FDModule {

/// With a from the row at `src` and b from the one at src + srcStride:
///   fraction 0         a, and the second row is not touched
///   fraction 128       (a + b + 1) >> 1
///   fraction 1 to 255  (a * (256 - fraction) + b * fraction + 128) >> 8
using InterpolateRows = void(uint8_t* dst, const uint8_t* src, ptrdiff_t srcStride, int32_t bytes,
                             int32_t fraction);

/// The columns at the 16.16 positions x, x + dx, ... of `src`. With a the sample at a position and
/// b the next one, which is read always:
///   filterColumns, block form  (a * (127 - f) + b * f) >> 7, f the upper 7 bits of the fraction
///   filterColumns, plain form  a + (((b - a) * fraction) >> 16)
///   sampleColumns              a
///   doubleColumns              every sample twice, whatever x and dx
/// The two forms of filterColumns differ: the block form is what fits 8-bit multiplications, and
/// its weights add up to 127/128. For packed pixels, whose bytes don't mix, they are
///   4 bytes, both forms   as the block form above
///   3 bytes, plain form   as the plain form above
///   3 bytes, block form   (a * (64 - f) + b * f + 32) >> 6, f the upper 6 bits; for the last two
///                         pixels of an even width and the last one of an odd width
///                         a + (((b - a) * f + 64) >> 7), f the upper 7 bits
using ColumnsRow = void(uint8_t* dst, const uint8_t* src, int32_t dstWidth, int32_t x, int32_t dx);

/// interpolateRows and filterColumns in one, in block form, for columns so far apart that most of
/// an interpolated row would never be read: it blends just the samples that the columns take. The
/// bytes are those of the two passes.
using BlendColumnsRow = void(uint8_t* dst, const uint8_t* src, ptrdiff_t srcStride,
                             int32_t fraction, int32_t dstWidth, int32_t x, int32_t dx);

/// Two samples to one, by ScaleFilter:
///   Nearest   the second of the two
///   Linear    (a + b + 1) >> 1
///   Bilinear  (a + b + c + d + 2) >> 2, with c and d from the row at src + srcStride. The block
///             form for packed pixels takes rounded means of a, c and of b, d, and of these again
using HalveRow = void(const uint8_t* src, ptrdiff_t srcStride, uint8_t* dst, int32_t dstWidth);

/// Packed pixels from a row of luma and half as many samples of chroma, by the formula of
/// yuv_table.h.
using YuvRow = void(const uint8_t* y, const uint8_t* u, const uint8_t* v, uint8_t* dst,
                    const YuvTable& constants, int32_t width);

/// Choosers. Widths are those of the destination, in pixels if not named otherwise. Null for a
/// pixel size, filter or pack mode that has no kernel.
InterpolateRows* chooseInterpolateRows(int32_t width, int32_t bytesPerPixel);
ColumnsRow* chooseColumns(int32_t dstWidth, int32_t bytesPerPixel);
/// Null for a width that isn't a whole number of blocks, too.
BlendColumnsRow* chooseBlendColumns(int32_t dstWidth, int32_t bytesPerPixel);
HalveRow* chooseHalveRow(int32_t dstWidth, int32_t bytesPerPixel, ScaleFilter filter);
YuvRow* chooseYuvRow(int32_t width, PackMode packMode);

/// Kernels without a block form, and so without a chooser; the numbers are bits per pixel. The C
/// library copies in blocks of its own, as wide as the processor has them.
void copyRow(const uint8_t* src, uint8_t* dst, int32_t bytes);
void sampleColumns(uint8_t* dst, const uint8_t* src, int32_t dstWidth, int32_t x, int32_t dx);
void sampleColumns24(uint8_t* dst, const uint8_t* src, int32_t dstWidth, int32_t x, int32_t dx);
void sampleColumns32(uint8_t* dst, const uint8_t* src, int32_t dstWidth, int32_t x, int32_t dx);
void doubleColumns(uint8_t* dst, const uint8_t* src, int32_t dstWidth, int32_t x, int32_t dx);

/// While the value is not 0, every chooser returns the plain form; it is 0 at first. For tests: it
/// changes the bytes that filterColumns gives.
void setPlainRowsOnly(uint8_t value);

}  // namespace TavroRTC::FDModule
