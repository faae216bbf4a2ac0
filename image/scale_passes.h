#pragma once

// What scaling of planes and of packed pixels have in common: where a scaler samples its source,
// and the passes over its rows. A caller decides which of them fits and where it samples (Slopes);
// it is done row by row with the kernels of row_kernels.h. A pixel is `bytesPerPixel` samples that
// never mix. Source pixels are read only inside the rows: a filter that looks past the edge sees
// the edge pixel again.
//
// Positions and steps are 16.16 fixed point: the upper 16 bits are a sample's index, the lower 16
// bits the way to the next sample. All divisions are done in 64 bits and truncated; results are the
// lower 32 bits.

#include <cstddef>

#include "image/row_kernels.h"

namespace TavroRTC::FDModule {

/// a / b. Only 32768 / 1 doesn't fit: it wraps to the lowest number, and centerStart allows for it.
int32_t fixedRatio(int32_t a, int32_t b);

/// The step that puts the last of b > 1 positions just below the last of a samples, so that it
/// still has a neighbour to the right. A single sample has none: the step is then 0, or -1 for
/// b = 2.
int32_t fixedRatioLast(int32_t a, int32_t b);

/// Half a step, plus `shift`.
int32_t centerStart(int32_t step, int32_t shift);

/// The first position x, y and the steps dx, dy of a whole image; sizes are at least 1. `Nearest`
/// and `Linear` look at the middle of the span that a destination sample covers. `Bilinear`
/// interpolates between the middles of samples, half a sample further on, and when it enlarges it
/// spreads the destination from the first sample to the last.
void computeScaleSlopes(int32_t srcWidth, int32_t srcHeight, int32_t dstWidth, int32_t dstHeight,
                        ScaleFilter filter, int32_t& x, int32_t& y, int32_t& dx, int32_t& dy);

/// The sample that a 16.16 position lies on or behind; -1 for one in front of the row.
constexpr int64_t sampleIndex(int64_t position) {
  return position >> 16;
}

/// The 8 bits of a position that weight two rows.
constexpr int32_t rowFraction(int64_t y) {
  return static_cast<int32_t>((y >> 8) & 255);
}

/// Rows of pixels: width counts pixels, stride bytes.
template <typename Sample>
struct PixelRows {
  Sample* samples;
  ptrdiff_t stride;
  int32_t width;
  int32_t height;

  Sample* row(int64_t y) const { return samples + y * stride; }
};
using SourceRows = PixelRows<const uint8_t>;
using TargetRows = PixelRows<uint8_t>;

/// The result of computeScaleSlopes.
struct Slopes {
  int32_t x = 0, y = 0, dx = 0, dy = 0;

  Slopes(const SourceRows& src, const TargetRows& dst, ScaleFilter filter) {
    computeScaleSlopes(src.width, src.height, dst.width, dst.height, filter, x, y, dx, dy);
  }
};

/// Point sampling of rows; `columns` takes what it needs of each.
void samplePoints(const SourceRows& src, const TargetRows& dst, const Slopes& slopes,
                  ColumnsKernel* columns);

/// For destinations that are not higher than the source: rows first, columns second. `Linear` takes
/// the rows as they are. False if there is no memory for a work row; nothing is written then.
bool reduce(const SourceRows& src, const TargetRows& dst, const Slopes& slopes,
            int32_t bytesPerPixel, ScaleFilter filter);

/// For higher destinations: columns first, rows second. Otherwise as `reduce`.
bool enlarge(const SourceRows& src, const TargetRows& dst, const Slopes& slopes,
             int32_t bytesPerPixel, ScaleFilter filter);

}  // namespace TavroRTC::FDModule
