#include "tests/image/reference.h"

#include <algorithm>

namespace tavro::test {
namespace {

// The positions along one direction: the first one and the step.
struct Positions {
  int64_t first = 0;
  int64_t step = 0;

  Positions(int64_t src, int64_t dst, int32_t filter) {
    const int64_t shift = filter == 2 ? 32768 : 0;
    if (filter == 2 && dst > src) {
      step = (src * 65536 - 65537) / (dst - 1);
    } else if (src == 32768 && dst == 1) {
      first = 0x40000000 + shift;  // the ratio 1 << 31 has become negative
    } else {
      step = src * 65536 / dst;
      first = step / 2 - shift;
    }
  }

  int64_t at(int64_t i) const { return first + i * step; }
};

int64_t floorOf(int64_t position) {
  return position >> 16;
}

// One column between its neighbours a and b.
uint8_t filteredColumn(int32_t a, int32_t b, int64_t position, bool blockForm) {
  const auto fraction = static_cast<int32_t>(position & 65535);
  const int32_t f = fraction >> 9;
  return static_cast<uint8_t>(blockForm ? (a * (127 - f) + b * f) >> 7
                                        : a + (((b - a) * fraction) >> 16));
}

uint8_t blendedRows(int32_t a, int32_t b, int32_t fraction) {
  if (fraction == 0)
    return static_cast<uint8_t>(a);
  return static_cast<uint8_t>(fraction == 128 ? (a + b + 1) >> 1
                                              : (a * (256 - fraction) + b * fraction + 128) >> 8);
}

// The same for one byte of column i of a row of packed pixels.
uint8_t filteredPackedColumn(int32_t a, int32_t b, int64_t position, int32_t i, int32_t width,
                             int32_t bytesPerPixel, bool plainRowsOnly) {
  if (bytesPerPixel == 4 || plainRowsOnly)
    return filteredColumn(a, b, position, bytesPerPixel == 4);
  const auto fraction = static_cast<int32_t>(position & 65535);
  const bool isLast = width <= 2 || i >= width - (width % 2 == 0 ? 2 : 1);
  const int32_t f = isLast ? fraction >> 9 : fraction >> 10;
  return static_cast<uint8_t>(isLast ? a + (((b - a) * f + 64) >> 7)
                                     : (a * (64 - f) + b * f + 32) >> 6);
}

// One byte of two pixels of a row and of the two below them.
int32_t packedBox(int32_t a, int32_t b, int32_t c, int32_t d, bool blockForm) {
  const auto mean = [](int32_t p, int32_t q) { return (p + q + 1) / 2; };
  return blockForm ? mean(mean(a, c), mean(b, d)) : (a + b + c + d + 2) / 4;
}

}  // namespace

TestPlane::TestPlane(int32_t planeWidth, int32_t planeHeight, int32_t gap, Guard guard)
    : width(planeWidth),
      height(planeHeight),
      stride(planeWidth + gap),
      bytes(static_cast<size_t>(stride) * static_cast<size_t>(height - 1) +
                static_cast<size_t>(width),
            guard) {}

uint8_t TestPlane::at(int32_t x, int32_t y) const {
  return bytes[static_cast<size_t>(y) * static_cast<size_t>(stride) + static_cast<size_t>(x)];
}

int32_t PlaneView::at(int64_t x, int64_t y) const {
  const auto inside = [](int64_t i, int64_t size) { return std::clamp<int64_t>(i, 0, size - 1); };
  return plane.at(static_cast<int32_t>(inside(left + inside(x, width), plane.width)),
                  static_cast<int32_t>(inside(top + inside(y, height), plane.height)));
}

std::vector<uint8_t> scaledPlane(const PlaneView& src, int32_t width, int32_t height,
                                 int32_t filter, bool plainRowsOnly) {
  if (filter == 2 && height == src.height && width != src.width)
    filter = 1;
  const Positions columns(src.width, width, filter);
  const Positions rows(src.height, height, filter);
  const int64_t lastRow = (src.height - 1) * int64_t{65536};
  const int64_t verticalStep = int64_t{src.height} * 65536 / height;

  const auto sample = [&](int32_t i, int32_t j) -> int32_t {
    if (width == src.width && height == src.height)
      return src.at(i, j);
    if (width == src.width) {
      const int64_t y = std::min(j * verticalStep, src.height > 1 ? lastRow - 1 : 0);
      const int32_t fraction = filter == 0 ? 0 : static_cast<int32_t>(y >> 8 & 255);
      return blendedRows(src.at(i, floorOf(y)), src.at(i, floorOf(y) + 1), fraction);
    }
    if (src.width == 2 * width && src.height == 2 * height) {
      const int64_t left = 2 * int64_t{i}, up = 2 * int64_t{j};
      const int32_t top = src.at(left, up) + src.at(left + 1, up);
      const int32_t bottom = src.at(left, up + 1) + src.at(left + 1, up + 1);
      if (filter == 0)
        return src.at(left + 1, up + 1);
      return filter == 1 ? (top + 1) >> 1 : (top + bottom + 2) >> 2;
    }
    const int64_t x = columns.at(i);
    const bool doubled = width == 2 * src.width;
    if (filter == 0)
      return src.at(doubled ? i / 2 : floorOf(x), floorOf(rows.at(j)));
    const bool blockForm = !plainRowsOnly && i < width / 8 * 8;
    const auto row = [&](int64_t y) {
      return filteredColumn(src.at(floorOf(x), y), src.at(floorOf(x) + 1, y), x, blockForm);
    };
    const int64_t y = height <= src.height ? std::min(rows.at(j), lastRow) : rows.at(j);
    const int32_t fraction = filter == 1 ? 0 : static_cast<int32_t>(y >> 8 & 255);
    if (height > src.height)
      return blendedRows(row(floorOf(y)), row(floorOf(y) + 1), fraction);
    const auto column = [&](int64_t at) {
      return blendedRows(src.at(at, floorOf(y)), src.at(at, floorOf(y) + 1), fraction);
    };
    return filteredColumn(column(floorOf(x)), column(floorOf(x) + 1), x, blockForm);
  };

  std::vector<uint8_t> samples;
  for (int32_t j = 0; j < height; ++j)
    for (int32_t i = 0; i < width; ++i)
      samples.push_back(static_cast<uint8_t>(sample(i, j)));
  return samples;
}

int32_t PackedView::at(int64_t x, int64_t y, int32_t byte) const {
  const int64_t column = left + std::clamp<int64_t>(x, 0, width - 1);
  const int64_t row = top + std::clamp<int64_t>(y, 0, height - 1);
  return plane.at(static_cast<int32_t>(column * bytesPerPixel + byte), static_cast<int32_t>(row));
}

std::vector<uint8_t> scaledPacked(const PackedView& src, int32_t width, int32_t height,
                                  int32_t filter, bool plainRowsOnly) {
  const Positions columns(src.width, width, filter);
  const Positions rows(src.height, height, filter);
  const auto isWhole = [](int64_t position) { return position % 65536 == 0; };
  const auto isOdd = [](int64_t step) { return step / 65536 % 2 == 1; };
  const bool wholeSteps = isWhole(columns.step) && isWhole(rows.step);
  const bool isHalving = wholeSteps && columns.step == 131072 && !isOdd(rows.step);
  const bool isOddRatio = wholeSteps && isOdd(columns.step) && isOdd(rows.step);
  const bool rowsOnly = columns.step == 65536 && isWhole(columns.first);
  const bool blendsRows = filter == 2 && src.height != height;
  const int32_t boxBlock = src.bytesPerPixel == 3 ? 16 : 4;

  const auto sample = [&](int32_t i, int32_t j, int32_t byte) -> int32_t {
    const int64_t x = floorOf(columns.at(i));
    const int64_t y = floorOf(rows.at(j));
    const auto fraction = static_cast<int32_t>(rows.at(j) >> 8 & 255);
    const auto at = [&](int64_t column, int64_t row) { return src.at(column, row, byte); };
    if (isHalving) {
      const int64_t left = 2 * int64_t{i}, right = left + 1;
      if (filter == 0)
        return at(right, y);
      if (filter == 1)
        return (at(left, y) + at(right, y) + 1) / 2;
      return packedBox(at(left, y), at(right, y), at(left, y + 1), at(right, y + 1),
                       !plainRowsOnly && i < width / boxBlock * boxBlock);
    }
    if (isOddRatio || (filter == 0 && !rowsOnly))
      return at(x, y);
    if (rowsOnly) {
      const int64_t last = src.height > 1 ? (src.height - 1) * int64_t{65536} - 1 : 0;
      const int64_t clamped = std::min(rows.at(j), last);
      return blendedRows(at(i, floorOf(clamped)), at(i, floorOf(clamped) + 1),
                         static_cast<int32_t>(clamped >> 8 & 255));
    }
    const auto filtered = [&](int32_t a, int32_t b) {
      return filteredPackedColumn(a, b, columns.at(i), i, width, src.bytesPerPixel, plainRowsOnly);
    };
    if (!blendsRows)
      return filtered(at(x, y), at(x + 1, y));
    if (height > src.height)
      return blendedRows(filtered(at(x, y), at(x + 1, y)), filtered(at(x, y + 1), at(x + 1, y + 1)),
                         fraction);
    return filtered(blendedRows(at(x, y), at(x, y + 1), fraction),
                    blendedRows(at(x + 1, y), at(x + 1, y + 1), fraction));
  };

  std::vector<uint8_t> samples;
  for (int32_t j = 0; j < height; ++j)
    for (int32_t i = 0; i < width; ++i)
      for (int32_t byte = 0; byte < src.bytesPerPixel; ++byte)
        samples.push_back(static_cast<uint8_t>(sample(i, j, byte)));
  return samples;
}

Bgr bgrOf(int32_t y, int32_t u, int32_t v) {
  const int32_t y1 = static_cast<int32_t>(int64_t{y} * 257 * 18997 / 65536);
  const auto byte = [&](int32_t chroma) {
    return static_cast<uint8_t>(std::clamp((y1 + chroma) >> 6, 0, 255));
  };
  return {byte(128 * u - 17544), byte(8696 - 25 * u - 52 * v), byte(102 * v - 14216)};
}

Yuv yuvOf(const Rgb& colour, bool isPlain) {
  const auto [r, g, b] = colour;
  // Division that rounds down, also below 0.
  const auto in256ths = [](int32_t sum) { return (sum - (sum % 256 + 256) % 256) / 256; };
  const auto chroma = [&](int32_t sum) {
    return static_cast<uint8_t>(isPlain ? in256ths(sum + 0x8080) : in256ths(sum) + 128);
  };
  const int32_t luma =
      isPlain ? (66 * r + 129 * g + 25 * b + 0x1080) / 256 : (33 * r + 65 * g + 13 * b) / 128 + 16;
  return {static_cast<uint8_t>(luma), chroma(112 * b - 74 * g - 38 * r),
          chroma(112 * r - 94 * g - 18 * b)};
}

testing::AssertionResult holds(const TestPlane& dst, const std::vector<uint8_t>& expected) {
  for (size_t i = 0; i < dst.bytes.size(); ++i) {
    const size_t y = i / static_cast<size_t>(dst.stride);
    const size_t x = i % static_cast<size_t>(dst.stride);
    const bool isGap = x >= static_cast<size_t>(dst.width);
    const uint8_t wanted = isGap ? GuardedBuffer<uint8_t>::poison
                                 : expected.at(y * static_cast<size_t>(dst.width) + x);
    if (dst.bytes[i] != wanted)
      return testing::AssertionFailure()
             << "column " << x << " row " << y << (isGap ? " (gap)" : "") << ": " << +dst.bytes[i]
             << " instead of " << +wanted;
  }
  return dst.bytes.intact() ? testing::AssertionSuccess()
                            : testing::AssertionFailure() << "wrote outside the plane";
}

}  // namespace tavro::test
