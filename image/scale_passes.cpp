#include "image/scale_passes.h"

#include <algorithm>
#include <cstring>

#include "image/work_row.h"

namespace TavroRTC::FDModule {
namespace {

constexpr int64_t one = 0x10000;
constexpr int32_t halfSample = 0x8000;

int32_t wrapTo32(int64_t value) {
  return static_cast<int32_t>(value);
}

void centerAxis(int32_t src, int32_t dst, int32_t shift, int32_t& start, int32_t& step) {
  step = fixedRatio(src, dst);
  start = centerStart(step, shift);
}

void bilinearAxis(int32_t src, int32_t dst, int32_t& start, int32_t& step) {
  if (dst <= src) {
    centerAxis(src, dst, -halfSample, start, step);
  } else if (dst > 1) {
    step = fixedRatioLast(src, dst);
    start = 0;
  }
}

// Filters the columns of one row after another. A kernel reads the neighbour to the right of every
// position. Where a position lies beyond the first or on the last pixel of the row, the row is
// copied first, with its edges repeated; known once per image, so that others pay nothing.
class ColumnFilter {
 public:
  ColumnFilter(int32_t srcWidth, int32_t dstWidth, int32_t x, int32_t dx, int32_t bytesPerPixel)
      : kernel_(chooseColumns(dstWidth, bytesPerPixel)),
        srcBytes_(srcWidth * bytesPerPixel),
        dstWidth_(dstWidth),
        x_(x),
        dx_(dx),
        bytesPerPixel_(bytesPerPixel) {
    const int64_t last = x_ + (int64_t{dstWidth} - 1) * dx_;
    leavesRow_ =
        std::min<int64_t>(x_, last) < 0 || sampleIndex(std::max<int64_t>(x_, last)) + 1 >= srcWidth;
  }

  // False if there is no memory.
  bool prepare() { return !leavesRow_ || edgedRow_.allocate(srcBytes_); }

  /// Whether a kernel must not be given the rows as they are.
  bool leavesRow() const { return leavesRow_; }

  void run(uint8_t* dst, const uint8_t* row) {
    kernel_(dst, leavesRow_ ? withEdges(row) : row, dstWidth_, x_, dx_);
  }

 private:
  const uint8_t* withEdges(const uint8_t* row) {
    uint8_t* samples = edgedRow_.samples();
    uint8_t* end = samples + srcBytes_;
    const auto pixelBytes = static_cast<size_t>(bytesPerPixel_);
    std::memcpy(samples, row, static_cast<size_t>(srcBytes_));
    std::memcpy(samples - bytesPerPixel_, samples, pixelBytes);
    std::memcpy(end, end - bytesPerPixel_, pixelBytes);
    return samples;
  }

  ColumnsKernel* kernel_;
  int32_t srcBytes_, dstWidth_;
  int32_t x_, dx_;
  int32_t bytesPerPixel_;
  bool leavesRow_;
  WorkRow edgedRow_;
};

// The columns that a row of the destination reads, widened to multiples of four pixels.
struct ColumnSpan {
  int32_t first = 0;
  int32_t width = 0;

  ColumnSpan(const SourceRows& src, const TargetRows& dst, const Slopes& slopes) {
    const int64_t last = slopes.x + (int64_t{dst.width} - 1) * slopes.dx;
    const int64_t end = (sampleIndex(last) + 5) & ~int64_t{3};
    first = static_cast<int32_t>(sampleIndex(slopes.x)) & ~3;
    width = static_cast<int32_t>(std::min<int64_t>(end, src.width)) - first;
  }
};

// From this step on it costs more to blend whole rows, vector after vector, than to gather the
// samples that the columns take from two rows instead of one.
constexpr int32_t farApart = 8 << 16;

// Far apart columns mean large frames, whose rows are in memory and not in a cache. A gather waits
// for each of its lines, so they are asked for one row ahead.
void prefetchRowPair(const uint8_t* row, ptrdiff_t stride, int32_t bytes) {
  constexpr int32_t cacheLine = 64;
  for (int32_t at = 0; at < bytes; at += cacheLine) {
    __builtin_prefetch(row + at);
    __builtin_prefetch(row + stride + at);
  }
}

}  // namespace

int32_t fixedRatio(int32_t a, int32_t b) {
  return wrapTo32(a * one / b);
}

int32_t fixedRatioLast(int32_t a, int32_t b) {
  return wrapTo32((a * one - (one + 1)) / (int64_t{b} - 1));
}

int32_t centerStart(int32_t step, int32_t shift) {
  if (step >= 0)
    return (step >> 1) + shift;
  // The wrapped ratio is its own negative in 32 bits, and half of it is the wanted start's
  // negative.
  const int32_t negated = wrapTo32(-int64_t{step});
  return -((negated >> 1) + shift);
}

void computeScaleSlopes(int32_t srcWidth, int32_t srcHeight, int32_t dstWidth, int32_t dstHeight,
                        ScaleFilter filter, int32_t& x, int32_t& y, int32_t& dx, int32_t& dy) {
  if (filter == ScaleFilter::Bilinear) {
    bilinearAxis(srcWidth, dstWidth, x, dx);
    bilinearAxis(srcHeight, dstHeight, y, dy);
  } else {
    centerAxis(srcWidth, dstWidth, 0, x, dx);
    centerAxis(srcHeight, dstHeight, 0, y, dy);
  }
}

void samplePoints(const SourceRows& src, const TargetRows& dst, const Slopes& slopes,
                  ColumnsKernel* columns) {
  int64_t y = slopes.y;
  for (int32_t row = 0; row < dst.height; ++row, y += slopes.dy)
    columns(dst.row(row), src.row(sampleIndex(y)), dst.width, slopes.x, slopes.dx);
}

// The columns run over a row that is already interpolated.
bool reduce(const SourceRows& src, const TargetRows& dst, const Slopes& slopes,
            int32_t bytesPerPixel, ScaleFilter filter) {
  const bool blendsRows = filter != ScaleFilter::Linear;
  const ColumnSpan span(src, dst, slopes);
  const int32_t spanBytes = span.width * bytesPerPixel;
  ColumnFilter columns(span.width, dst.width, slopes.x - (span.first << 16), slopes.dx,
                       bytesPerPixel);
  const ptrdiff_t firstByte = ptrdiff_t{span.first} * bytesPerPixel;
  if (blendsRows && !columns.leavesRow() && slopes.dx >= farApart) {
    if (BlendColumnsKernel* blendColumns = chooseBlendColumns(dst.width, bytesPerPixel)) {
      int64_t y = slopes.y;
      for (int32_t i = 0; i < dst.height; ++i, y += slopes.dy) {
        if (i + 1 < dst.height)
          prefetchRowPair(src.row(sampleIndex(y + slopes.dy)) + firstByte, src.stride, spanBytes);
        blendColumns(dst.row(i), src.row(sampleIndex(y)) + firstByte, src.stride, rowFraction(y),
                     dst.width, slopes.x - (span.first << 16), slopes.dx);
      }
      return true;
    }
  }

  WorkRow work;
  if (!columns.prepare() || (blendsRows && !work.allocate(spanBytes)))
    return false;

  InterpolateKernel* interpolateRows = chooseInterpolateRows(span.width, bytesPerPixel);
  // Starting inside the first step, the positions stay above the last row, or on it where rows are
  // not blended: there always is a row below.
  int64_t y = slopes.y;
  for (int32_t i = 0; i < dst.height; ++i, y += slopes.dy) {
    const uint8_t* row = src.row(sampleIndex(y)) + firstByte;
    if (blendsRows) {
      interpolateRows(work.samples(), row, src.stride, spanBytes, rowFraction(y));
      row = work.samples();
    }
    columns.run(dst.row(i), row);
  }
  return true;
}

// The columns go into a ring of two rows: each source row is filtered once, however many
// destination rows lie between it and the next.
bool enlarge(const SourceRows& src, const TargetRows& dst, const Slopes& slopes,
             int32_t bytesPerPixel, ScaleFilter filter) {
  const bool blendsRows = filter != ScaleFilter::Linear;
  const int32_t rowBytes = dst.width * bytesPerPixel;
  const ptrdiff_t ringStride = (ptrdiff_t{rowBytes} + 31) & ~ptrdiff_t{31};
  ColumnFilter columns(src.width, dst.width, slopes.x, slopes.dx, bytesPerPixel);
  WorkRow ring;
  if (!columns.prepare() || !ring.allocate(2 * ringStride))
    return false;

  // The last row is its own lower neighbour.
  const auto filterRow = [&](uint8_t* target, int64_t y) {
    columns.run(target, src.row(std::min<int64_t>(y, src.height - 1)));
  };
  InterpolateKernel* interpolateRows = chooseInterpolateRows(dst.width, bytesPerPixel);
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
    interpolateRows(dst.row(i), upper, toLower, rowBytes, blendsRows ? rowFraction(y) : 0);
  }
  return true;
}

}  // namespace TavroRTC::FDModule
