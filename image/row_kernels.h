#pragma once

// All work on samples happens in row kernels: functions that handle one row and keep nothing. Every
// family of kernels has a plain form, sample by sample, and most have a block form on 128-bit
// vectors. A chooser picks by the row's width: a whole number of blocks gets the block form, any
// other width the block form with a tail (row_tails.h). Some block forms have a twin on 256-bit
// vectors with the same bytes, which takes their place on a processor with AVX2. To add a kernel,
// write its forms and add a row to the tables of row_selection.cpp.
//
// Kernels read and write the samples of their row and no others. A width below 1 does nothing.

#include <cstddef>
#include <cstdint>

#include "image/image_desc.h"

namespace TavroRTC::FDModule {

// ---- Scaling

/// Rows must not overlap. The C library copies in blocks of its own, as wide as the processor has
/// them, so that there is one form only.
using CopyKernel = void(const uint8_t* src, uint8_t* dst, int32_t bytes);

/// With a from the row at `src` and b from the one at src + srcStride:
///   fraction 0         a, and the second row is not touched
///   fraction 128       (a + b + 1) >> 1
///   fraction 1 to 255  (a * (256 - fraction) + b * fraction + 128) >> 8
using InterpolateKernel = void(uint8_t* dst, const uint8_t* src, ptrdiff_t srcStride, int32_t bytes,
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
using ColumnsKernel = void(uint8_t* dst, const uint8_t* src, int32_t dstWidth, int32_t x,
                           int32_t dx);

/// interpolateRows and filterColumns in one, in block form, for columns so far apart that most of
/// an interpolated row would never be read: it blends just the samples that the columns take. The
/// bytes are those of the two passes.
using BlendColumnsKernel = void(uint8_t* dst, const uint8_t* src, ptrdiff_t srcStride,
                                int32_t fraction, int32_t dstWidth, int32_t x, int32_t dx);

/// Two samples to one, by ScaleFilter:
///   Nearest   the second of the two
///   Linear    (a + b + 1) >> 1
///   Bilinear  (a + b + c + d + 2) >> 2, with c and d from the row at src + srcStride. The block
///             form for packed pixels takes rounded means of a, c and of b, d, and of these again
using HalveKernel = void(const uint8_t* src, ptrdiff_t srcStride, uint8_t* dst, int32_t dstWidth);

// ---- Colours: BT.601 in limited range

/// Where the colours of a packed pixel stand among its bytes. The kernels that read packed pixels
/// are generated from these descriptions (color_row_kernels_*.cpp); a new layout is one line here
/// and a row in the tables that are to have it.
struct PixelLayout {
  int32_t bytesPerPixel;
  int32_t red, green, blue;  ///< the byte of each

  friend constexpr bool operator==(const PixelLayout&, const PixelLayout&) = default;
};

inline constexpr PixelLayout rgb24 = {3, 0, 1, 2};
inline constexpr PixelLayout bgr24 = {3, 2, 1, 0};
inline constexpr PixelLayout rgba32 = {4, 0, 1, 2};
inline constexpr PixelLayout bgra32 = {4, 2, 1, 0};
inline constexpr PixelLayout argb32 = {4, 1, 2, 3};
inline constexpr PixelLayout abgr32 = {4, 3, 2, 1};

/// One luma sample a pixel. The coefficients have 7 bits in the block form, 8 in the plain one:
///   block  ((33 R + 65 G + 13 B) >> 7) + 16
///   plain  (66 R + 129 G + 25 B + 0x1080) >> 8
using LumaKernel = void(const uint8_t* src, uint8_t* dstY, int32_t width);

/// One U and one V sample for two by two pixels, the second row `srcStride` bytes further on; an
/// odd width's last column counts twice. With the mean of each colour over the pixels:
///   block  mean: average of the two vertical averages, each rounded up
///          U ((112 B - 74 G - 38 R) >> 8) + 128, V ((112 R - 94 G - 18 B) >> 8) + 128
///   plain  mean: sum / 4, of an odd last column sum / 2
///          (... + 0x8080) >> 8 instead
using ChromaKernel = void(const uint8_t* src, ptrdiff_t srcStride, uint8_t* dstU, uint8_t* dstV,
                          int32_t width);

/// The constants of the conversion from YUV, in the form that vector kernels load: each value
/// repeated over a register and more.
///
/// A colour is clamp((bias - (c * u + d * v) + y1) >> 6), with y1 = (y * yGain * 257) >> 16 and
/// (c, d) the pair of its output byte. All terms are in units of 1/64.
struct YuvTable {
  static constexpr int32_t copies = 16;

  alignas(16) int8_t first[2 * copies];  ///< pairs (coefficient of U, of V) for output byte 0
  int8_t second[2 * copies];             ///< for output byte 1
  int8_t third[2 * copies];              ///< for output byte 2
  int16_t firstBias[copies];
  int16_t secondBias[copies];
  int16_t thirdBias[copies];
  int16_t yGain[copies];
};

extern const YuvTable YuvTableBgr;

/// The other table with U and V exchanged: given the planes in swapped order it puts red first.
extern const YuvTable YuvTableRgb;

/// The bytes of a packed pixel; "out" stands for the three colours in the table's order.
enum class PackMode : int32_t {
  fourBytes = 1,    ///< out, 255
  opaqueFirst = 2,  ///< 255, out
  threeBytes = 3,   ///< out
};

/// Packed pixels from a row of luma and half as many samples of chroma.
using YuvKernel = void(const uint8_t* y, const uint8_t* u, const uint8_t* v, uint8_t* dst,
                       const YuvTable& constants, int32_t width);

// ---- Layouts

/// How packed pixels turn into packed pixels.
enum class PackedOp : int32_t {
  addOpaque,         ///< p0, p1, p2, 255
  dropLast,          ///< p0, p1, p2
  addOpaqueSwapped,  ///< p2, p1, p0, 255
};

/// Packed pixels to packed pixels, by PackedOp.
using PackedKernel = void(const uint8_t* src, uint8_t* dst, int32_t width);

/// first[0], second[0], first[1], second[1], ... from `width` samples of each.
using MergeChromaKernel = void(const uint8_t* first, const uint8_t* second, uint8_t* dst,
                               int32_t width);
/// The reverse, to `width` samples of each.
using SplitChromaKernel = void(const uint8_t* src, uint8_t* first, uint8_t* second, int32_t width);

// ---- Choosers

/// Widths are those of the destination, in pixels if not named otherwise. Null for a pixel size,
/// filter, layout, operation or pack mode that has no kernel.
CopyKernel* chooseCopyRow(int32_t bytes);
InterpolateKernel* chooseInterpolateRows(int32_t width, int32_t bytesPerPixel);
ColumnsKernel* chooseColumns(int32_t dstWidth, int32_t bytesPerPixel);
/// Also null for a width that isn't a whole number of blocks.
BlendColumnsKernel* chooseBlendColumns(int32_t dstWidth, int32_t bytesPerPixel);
HalveKernel* chooseHalveRow(int32_t dstWidth, int32_t bytesPerPixel, ScaleFilter filter);
YuvKernel* chooseYuvRow(int32_t width, PackMode packMode);
LumaKernel* chooseLumaRow(int32_t width, const PixelLayout& layout);
ChromaKernel* chooseChromaRow(int32_t width, const PixelLayout& layout);
PackedKernel* choosePackedRow(int32_t width, PackedOp op);
MergeChromaKernel* chooseMergeChromaRow(int32_t width);
SplitChromaKernel* chooseSplitChromaRow(int32_t width);

/// Luma of rgb24 with 8 bits in both forms, which therefore agree.
LumaKernel* chooseFineLumaRow(int32_t width);

/// Kernels without a block form, and so without a chooser; the numbers are bits per pixel.
void sampleColumns(uint8_t* dst, const uint8_t* src, int32_t dstWidth, int32_t x, int32_t dx);
void sampleColumns24(uint8_t* dst, const uint8_t* src, int32_t dstWidth, int32_t x, int32_t dx);
void sampleColumns32(uint8_t* dst, const uint8_t* src, int32_t dstWidth, int32_t x, int32_t dx);
void doubleColumns(uint8_t* dst, const uint8_t* src, int32_t dstWidth, int32_t x, int32_t dx);

/// While plainRowsOnly isn't 0, every chooser returns the plain form; it is 0 at first. For tests:
/// it changes the bytes that filterColumns computes.
void setPlainRowsOnly(uint8_t value);

}  // namespace TavroRTC::FDModule
