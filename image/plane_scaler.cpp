#include "image/plane_scaler.h"

#include <algorithm>
#include <cstddef>
#include <limits>

#include "image/row_kernels.h"
#include "image/scale_geometry.h"
#include "image/work_row.h"

namespace TavroRTC::FDModule {
namespace {

constexpr int64_t one = 0x10000;  // a whole sample in 16.16

// The sample that a position lies on or behind; -1 for one in front of the row.
int64_t sampleIndex(int64_t position) {
  return position >> 16;
}

// The 8 bits of a position that weight two rows.
int32_t rowFraction(int64_t y) {
  return static_cast<int32_t>((y >> 8) & 255);
}

template <typename Sample>
struct Plane {
  Sample* samples;
  ptrdiff_t stride;
  int32_t width;
  int32_t height;

  Sample* row(int64_t y) const { return samples + y * stride; }
};
using SourcePlane = Plane<const uint8_t>;
using TargetPlane = Plane<uint8_t>;

struct Slopes {
  int32_t x = 0, y = 0, dx = 0, dy = 0;

  Slopes(const SourcePlane& src, const TargetPlane& dst, ScaleFilter filter) {
    computeScaleSlopes(src.width, src.height, dst.width, dst.height, filter, x, y, dx, dy);
  }
};

// Filters the columns of one row after another. A kernel reads the neighbour to the right of every
// position. Where a position lies beyond the first or on the last sample of the row, the row is
// copied first, with its edges repeated; known once per plane, so that other planes pay nothing.
class ColumnFilter {
 public:
  ColumnFilter(int32_t srcWidth, int32_t dstWidth, const Slopes& slopes)
      : kernel_(chooseColumns(dstWidth, 1)),
        srcWidth_(srcWidth),
        dstWidth_(dstWidth),
        x_(slopes.x),
        dx_(slopes.dx) {
    const int64_t last = x_ + (int64_t{dstWidth} - 1) * dx_;
    leavesRow_ =
        std::min<int64_t>(x_, last) < 0 || sampleIndex(std::max<int64_t>(x_, last)) + 1 >= srcWidth;
  }

  // False if there is no memory.
  bool prepare() {
    copyRow_ = chooseCopyRow(srcWidth_);
    return !leavesRow_ || edgedRow_.allocate(srcWidth_);
  }

  void run(uint8_t* dst, const uint8_t* row) {
    kernel_(dst, leavesRow_ ? withEdges(row) : row, dstWidth_, x_, dx_);
  }

 private:
  const uint8_t* withEdges(const uint8_t* row) {
    uint8_t* samples = edgedRow_.samples();
    copyRow_(row, samples, srcWidth_);
    samples[-1] = samples[0];
    samples[srcWidth_] = samples[srcWidth_ - 1];
    return samples;
  }

  ColumnsRow* kernel_;
  CopyRow* copyRow_ = nullptr;
  int32_t srcWidth_, dstWidth_;
  int32_t x_, dx_;
  bool leavesRow_;
  WorkRow edgedRow_;
};

bool isHalf(const SourcePlane& src, const TargetPlane& dst) {
  return src.width == int64_t{2} * dst.width && src.height == int64_t{2} * dst.height;
}

void halve(const SourcePlane& src, const TargetPlane& dst, ScaleFilter filter) {
  HalveRow* halveRow = chooseHalveRow(dst.width, 1, filter);
  // Point sampling keeps the odd rows, as it does the odd columns.
  const int32_t firstRow = filter == ScaleFilter::Nearest ? 1 : 0;
  for (int32_t y = 0; y < dst.height; ++y)
    halveRow(src.row(2 * int64_t{y} + firstRow), src.stride, dst.row(y), dst.width);
}

void samplePoints(const SourcePlane& src, const TargetPlane& dst) {
  const Slopes slopes(src, dst, ScaleFilter::Nearest);
  ColumnsRow* columns = int64_t{2} * src.width == dst.width ? doubleColumns : sampleColumns;
  int64_t y = slopes.y;
  for (int32_t row = 0; row < dst.height; ++row, y += slopes.dy)
    columns(dst.row(row), src.row(sampleIndex(y)), dst.width, slopes.x, slopes.dx);
}

// Rows first: the columns then run over a row that is already interpolated.
bool reduce(const SourcePlane& src, const TargetPlane& dst, ScaleFilter filter) {
  const Slopes slopes(src, dst, filter);
  const bool blendsRows = filter != ScaleFilter::Linear;
  ColumnFilter columns(src.width, dst.width, slopes);
  WorkRow work;
  if (!columns.prepare() || (blendsRows && !work.allocate(src.width)))
    return false;

  InterpolateRows* interpolateRows = chooseInterpolateRows(src.width, 1);
  // Starting inside the first step, the positions stay above the last row, or on it where rows are
  // not blended: there always is a row below.
  int64_t y = slopes.y;
  for (int32_t i = 0; i < dst.height; ++i, y += slopes.dy) {
    const uint8_t* row = src.row(sampleIndex(y));
    if (blendsRows) {
      interpolateRows(work.samples(), row, src.stride, src.width, rowFraction(y));
      row = work.samples();
    }
    columns.run(dst.row(i), row);
  }
  return true;
}

// Columns first, into a ring of two rows: each source row is filtered once, however many
// destination rows lie between it and the next.
bool enlarge(const SourcePlane& src, const TargetPlane& dst, ScaleFilter filter) {
  const Slopes slopes(src, dst, filter);
  const bool blendsRows = filter != ScaleFilter::Linear;
  const ptrdiff_t ringStride = (ptrdiff_t{dst.width} + 31) & ~ptrdiff_t{31};
  ColumnFilter columns(src.width, dst.width, slopes);
  WorkRow ring;
  if (!columns.prepare() || !ring.allocate(2 * ringStride))
    return false;

  // The last row is its own lower neighbour.
  const auto filterRow = [&](uint8_t* target, int64_t y) {
    columns.run(target, src.row(std::min<int64_t>(y, src.height - 1)));
  };
  InterpolateRows* interpolateRows = chooseInterpolateRows(dst.width, 1);
  int64_t y = slopes.y;
  int64_t upperY = sampleIndex(y);
  uint8_t* upper = ring.samples();
  ptrdiff_t toLower = ringStride;
  filterRow(upper, upperY);
  filterRow(upper + toLower, upperY + 1);
  for (int32_t i = 0; i < dst.height; ++i, y += slopes.dy) {
    // The step is less than a row: one new row at most.
    if (sampleIndex(y) != upperY) {
      upperY = sampleIndex(y);
      filterRow(upper, upperY + 1);
      upper += toLower;
      toLower = -toLower;
    }
    interpolateRows(dst.row(i), upper, toLower, dst.width, blendsRows ? rowFraction(y) : 0);
  }
  return true;
}

bool areAccepted(int32_t srcWidth, int32_t srcHeight, int32_t dstWidth, int32_t dstHeight,
                 ScaleFilter filter) {
  const auto isSourceSize = [](int32_t size) { return size >= 1 && size <= largestSourceSize; };
  return isSourceSize(srcWidth) && isSourceSize(srcHeight) && dstWidth >= 1 && dstHeight >= 1 &&
         filter >= ScaleFilter::Nearest && filter <= ScaleFilter::Bilinear;
}

}  // namespace

int32_t scalePlanar420(const uint8_t* srcY, int32_t srcStrideY, const uint8_t* srcU,
                       int32_t srcStrideU, const uint8_t* srcV, int32_t srcStrideV,
                       int32_t srcWidth, int32_t srcHeight, uint8_t* dstY, int32_t dstStrideY,
                       uint8_t* dstU, int32_t dstStrideU, uint8_t* dstV, int32_t dstStrideV,
                       int32_t dstWidth, int32_t dstHeight, ScaleFilter filter) {
  if (srcY == nullptr || srcU == nullptr || srcV == nullptr || dstY == nullptr || dstU == nullptr ||
      dstV == nullptr || !areAccepted(srcWidth, srcHeight, dstWidth, dstHeight, filter))
    return -1;
  const int32_t srcChromaWidth = chromaSize(srcWidth);
  const int32_t srcChromaHeight = chromaSize(srcHeight);
  const int32_t dstChromaWidth = chromaSize(dstWidth);
  const int32_t dstChromaHeight = chromaSize(dstHeight);
  const bool scaled = scalePlane(srcY, srcStrideY, srcWidth, srcHeight, dstY, dstStrideY, dstWidth,
                                 dstHeight, filter) &&
                      scalePlane(srcU, srcStrideU, srcChromaWidth, srcChromaHeight, dstU,
                                 dstStrideU, dstChromaWidth, dstChromaHeight, filter) &&
                      scalePlane(srcV, srcStrideV, srcChromaWidth, srcChromaHeight, dstV,
                                 dstStrideV, dstChromaWidth, dstChromaHeight, filter);
  return scaled ? 0 : -1;
}

int32_t scaleSinglePlane(const uint8_t* src, int32_t srcStride, int32_t srcWidth, int32_t srcHeight,
                         uint8_t* dst, int32_t dstStride, int32_t dstWidth, int32_t dstHeight,
                         ScaleFilter filter) {
  if (src == nullptr || dst == nullptr ||
      !areAccepted(srcWidth, srcHeight, dstWidth, dstHeight, filter))
    return -1;
  return scalePlane(src, srcStride, srcWidth, srcHeight, dst, dstStride, dstWidth, dstHeight,
                    filter)
             ? 0
             : -1;
}

bool scalePlane(const uint8_t* src, int32_t srcStride, int32_t srcWidth, int32_t srcHeight,
                uint8_t* dst, int32_t dstStride, int32_t dstWidth, int32_t dstHeight,
                ScaleFilter filter) {
  const SourcePlane source = {src, srcStride, srcWidth, srcHeight};
  const TargetPlane target = {dst, dstStride, dstWidth, dstHeight};
  if (dstWidth == srcWidth && dstHeight == srcHeight) {
    copyPlane(src, srcStride, dst, dstStride, dstWidth, dstHeight);
    return true;
  }
  // Rows that go one to one have nothing to interpolate.
  if (filter == ScaleFilter::Bilinear && dstHeight == srcHeight)
    filter = ScaleFilter::Linear;
  if (dstWidth == srcWidth) {
    scaleVertical(srcHeight, dstWidth, dstHeight, srcStride, dstStride, src, dst, 0, 0,
                  fixedRatio(srcHeight, dstHeight), 1, filter);
    return true;
  }
  if (isHalf(source, target)) {
    halve(source, target, filter);
    return true;
  }
  if (filter == ScaleFilter::Nearest) {
    samplePoints(source, target);
    return true;
  }
  return dstHeight <= srcHeight ? reduce(source, target, filter) : enlarge(source, target, filter);
}

void copyPlane(const uint8_t* src, int32_t srcStride, uint8_t* dst, int32_t dstStride,
               int32_t widthBytes, int32_t height) {
  if (src == dst && srcStride == dstStride)
    return;
  // Without gaps the plane is one long row, if its length can be counted.
  if (srcStride == widthBytes && dstStride == widthBytes &&
      int64_t{widthBytes} * height <= std::numeric_limits<int32_t>::max()) {
    widthBytes *= height;
    height = 1;
  }
  CopyRow* copyRow = chooseCopyRow(widthBytes);
  for (ptrdiff_t y = 0; y < height; ++y)
    copyRow(src + y * srcStride, dst + y * dstStride, widthBytes);
}

void scaleVertical(int32_t srcHeight, int32_t dstWidth, int32_t dstHeight, int32_t srcStride,
                   int32_t dstStride, const uint8_t* src, uint8_t* dst, int32_t x, int32_t y,
                   int32_t dy, int32_t bytesPerPixel, ScaleFilter filter) {
  // Just below the last row, so that there always is a row below.
  const int64_t maxY = srcHeight > 1 ? (srcHeight - 1) * one - 1 : 0;
  const uint8_t* firstColumn = src + sampleIndex(x) * bytesPerPixel;
  InterpolateRows* interpolateRows = chooseInterpolateRows(dstWidth, bytesPerPixel);
  int64_t position = y;
  for (ptrdiff_t i = 0; i < dstHeight; ++i, position += dy) {
    // The step of a single row stretched to two is -1.
    position = std::clamp<int64_t>(position, 0, maxY);
    const int32_t fraction = filter == ScaleFilter::Nearest ? 0 : rowFraction(position);
    interpolateRows(dst + i * dstStride, firstColumn + sampleIndex(position) * srcStride, srcStride,
                    dstWidth * bytesPerPixel, fraction);
  }
}

}  // namespace TavroRTC::FDModule
