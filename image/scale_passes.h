#pragma once

// The ways of scaling that planes and packed pixels have in common. A caller decides which of them
// fits and where it samples (Slopes); it is done row by row with the kernels of row_kernels.h. A
// pixel is `bytesPerPixel` samples that never mix. Source pixels are read only inside the rows: a
// filter that looks past the edge sees the edge pixel again.

#include <cstddef>

#include "image/row_kernels.h"
#include "image/scale_geometry.h"

namespace TavroRTC::FDModule {

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
                  ColumnsRow* columns);

/// For destinations that are not higher than the source: rows first, columns second. `Linear` takes
/// the rows as they are. False if there is no memory for a work row; nothing is written then.
bool reduce(const SourceRows& src, const TargetRows& dst, const Slopes& slopes,
            int32_t bytesPerPixel, ScaleFilter filter);

/// For higher destinations: columns first, rows second. Otherwise as `reduce`.
bool enlarge(const SourceRows& src, const TargetRows& dst, const Slopes& slopes,
             int32_t bytesPerPixel, ScaleFilter filter);

}  // namespace TavroRTC::FDModule
