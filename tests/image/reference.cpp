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

}  // namespace

TestPlane::TestPlane(int32_t planeWidth, int32_t planeHeight, int32_t gap, Guard guard)
    : width(planeWidth),
      height(planeHeight),
      stride(planeWidth + gap),
      bytes(static_cast<size_t>(stride) * static_cast<size_t>(height - 1) +
                static_cast<size_t>(width),
            guard) {}

void TestPlane::fill(Content content, Random& random) {
  for (size_t i = 0; i < bytes.size(); ++i) {
    const bool isZero =
        content == Content::zeros || (content == Content::alternating && i % 2 == 0);
    const uint8_t flat = isZero ? 0 : 255;
    bytes[i] = content == Content::random ? random.byte() : flat;
  }
}

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

Bgr bgrOf(int32_t y, int32_t u, int32_t v) {
  const int32_t y1 = static_cast<int32_t>(int64_t{y} * 257 * 18997 / 65536);
  const auto byte = [&](int32_t chroma) {
    return static_cast<uint8_t>(std::clamp((y1 + chroma) >> 6, 0, 255));
  };
  return {byte(128 * u - 17544), byte(8696 - 25 * u - 52 * v), byte(102 * v - 14216)};
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
