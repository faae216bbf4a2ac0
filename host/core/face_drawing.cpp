#include "host/core/face_drawing.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <numbers>
#include <utility>
#include <vector>

namespace tavro::host {

namespace {

using TavroRTC::FDModule::FaceRect;

// In limited-range BT.601.
constexpr uint8_t lineColor[planeCount] = {173, 42, 26};  // a green that stands out from skin
constexpr uint8_t black[planeCount] = {16, 128, 128};
constexpr int64_t blocksPerSide = 6;

int32_t saturated(int64_t value) {
  return static_cast<int32_t>(std::clamp<int64_t>(value, std::numeric_limits<int32_t>::min(),
                                                  std::numeric_limits<int32_t>::max()));
}

/// Half-open area of luma samples, 64 bits wide: rectangles may lie anywhere in 32 bits.
struct Area {
  int64_t left, top, right, bottom;
};

/// A part of one component, which begins at that column and row of it.
struct Patch {
  uint8_t* first;
  int64_t stride, step;
  int64_t left, top;
  int64_t width, height;

  uint8_t& at(int64_t x, int64_t y) const { return first[y * stride + x * step]; }

  void fill(int64_t row, int64_t from, int64_t to, uint8_t sample) const {
    for (int64_t x = from; x < to; ++x)
      at(x, row) = sample;
  }
};

/// What of the area is in the picture. Chroma is rounded outwards: none is left where its luma is
/// painted over.
Patch patchOf(const Component& component, int32_t plane, int32_t width, int32_t height,
              const Area& area) {
  const int half = plane == 0 ? 0 : 1;
  const int64_t columns = planeExtent(plane, width);
  const int64_t rows = planeExtent(plane, height);
  const int64_t left = std::clamp<int64_t>(area.left >> half, 0, columns);
  const int64_t right = std::clamp<int64_t>((area.right + half) >> half, left, columns);
  const int64_t top = std::clamp<int64_t>(area.top >> half, 0, rows);
  const int64_t bottom = std::clamp<int64_t>((area.bottom + half) >> half, top, rows);
  return {component.samples + top * component.stride + left * component.step,
          component.stride,
          component.step,
          left,
          top,
          right - left,
          bottom - top};
}

/// The lines of a box. With even corners and an even thickness, the chroma of a line covers just
/// its luma; only the border of a picture of odd size stands within a pair of samples.
std::array<Area, 4> linesOf(const FaceRect& face, int32_t width, int32_t height) {
  const auto even = [](int64_t value) { return value & ~int64_t{1}; };
  const auto end = [even](int64_t corner, int64_t border) {
    return corner == border ? border : even(corner + 1);
  };
  const int64_t thickness = lineThickness(width, height);
  const Area box = {even(face.left), even(face.top), end(face.right, width),
                    end(face.bottom, height)};
  const int64_t innerLeft = std::min(box.left + thickness, box.right);
  const int64_t innerTop = std::min(box.top + thickness, box.bottom);
  const int64_t innerRight = std::max(even(box.right - thickness), box.left);
  const int64_t innerBottom = std::max(even(box.bottom - thickness), box.top);
  return {{{box.left, box.top, box.right, innerTop},
           {box.left, innerBottom, box.right, box.bottom},
           {box.left, box.top, innerLeft, box.bottom},
           {innerRight, box.top, box.right, box.bottom}}};
}

/// The means of a patch's blocks, row by row. Of a patch with fewer samples than blocks, some are
/// in several.
struct Means {
  explicit Means(const Patch& patch) {
    for (int64_t row = 0; row < blocksPerSide; ++row)
      for (int64_t column = 0; column < blocksPerSide; ++column) {
        const int64_t x = column * patch.width / blocksPerSide;
        const int64_t y = row * patch.height / blocksPerSide;
        const int64_t endX = std::max((column + 1) * patch.width / blocksPerSide, x + 1);
        const int64_t endY = std::max((row + 1) * patch.height / blocksPerSide, y + 1);
        int64_t sum = 0;
        for (int64_t j = y; j < endY; ++j)
          for (int64_t i = x; i < endX; ++i)
            sum += patch.at(i, j);
        const int64_t count = (endX - x) * (endY - y);
        of[row][column] = (sum + count / 2) / count;
      }
  }

  int64_t of[blocksPerSide][blocksPerSide];
};

/// The blocks around a sample's place along a side: `part` 256ths of the second one.
struct Between {
  int64_t first, second, part;
};

/// For every place along a side. Without smoothness, a place has its own block alone.
std::vector<Between> placesAlong(int64_t size, bool isSmooth) {
  std::vector<Between> places;
  places.reserve(static_cast<size_t>(size));
  for (int64_t i = 0; i < size; ++i) {
    if (!isSmooth) {
      // The inverse of where a block begins.
      const int64_t block = ((i + 1) * blocksPerSide - 1) / size;
      places.push_back({block, block, 0});
      continue;
    }
    // From centre to centre of the blocks.
    const int64_t place = std::clamp<int64_t>((2 * i + 1) * blocksPerSide * 128 / size - 128, 0,
                                              (blocksPerSide - 1) * 256);
    places.push_back({place / 256, std::min(place / 256 + 1, blocksPerSide - 1), place % 256});
  }
  return places;
}

/// The half-open area around an ellipse whose inner rectangle has these corners.
Area aroundEllipse(const FaceRect& inner) {
  const auto grow = [](int64_t size) {
    return static_cast<int64_t>(
        std::ceil(static_cast<double>(size) * (std::numbers::sqrt2 - 1) / 2));
  };
  const int64_t x = grow(int64_t{inner.right} - inner.left);
  const int64_t y = grow(int64_t{inner.bottom} - inner.top);
  return {inner.left - x, inner.top - y, inner.right + x, inner.bottom + y};
}

/// The columns of a component's row, half-open, in which it touches the smallest ellipse around
/// the rectangle.
std::pair<int64_t, int64_t> columnsInEllipse(const FaceRect& inner, int32_t plane, int64_t row) {
  const int half = plane == 0 ? 0 : 1;
  const double middleX = (double(inner.left) + inner.right) / 2;
  const double middleY = (double(inner.top) + inner.bottom) / 2;
  // The row is a band; where the ellipse is widest in it, it is nearest to the middle.
  const auto top = static_cast<double>(row << half);
  const auto bottom = static_cast<double>((row + 1) << half);
  const double distance = std::clamp(middleY, top, bottom) - middleY;
  const double partY = distance / ((double(inner.bottom) - inner.top) / std::numbers::sqrt2);
  const double reach = (double(inner.right) - inner.left) / std::numbers::sqrt2 *
                       std::sqrt(std::max(0.0, 1.0 - partY * partY));
  const auto left = static_cast<int64_t>(std::floor(middleX - reach));
  const auto right = static_cast<int64_t>(std::ceil(middleX + reach));
  return {left >> half, (right + half) >> half};
}

/// The columns of each row of a patch that are to be hidden, half-open.
using Rows = std::vector<std::pair<int64_t, int64_t>>;

void spread(const Means& means, const Patch& patch, const Rows& hidden, bool isSmooth) {
  const std::vector<Between> columns = placesAlong(patch.width, isSmooth);
  const std::vector<Between> rows = placesAlong(patch.height, isSmooth);
  for (int64_t y = 0; y < patch.height; ++y) {
    const auto [above, below, part] = rows[static_cast<size_t>(y)];
    int64_t line[blocksPerSide];
    for (int64_t column = 0; column < blocksPerSide; ++column)
      line[column] = means.of[above][column] * (256 - part) + means.of[below][column] * part;
    for (auto [x, end] = hidden[static_cast<size_t>(y)]; x < end; ++x) {
      const Between& column = columns[static_cast<size_t>(x)];
      patch.at(x, y) = static_cast<uint8_t>(
          (line[column.first] * (256 - column.part) + line[column.second] * column.part + 32768) >>
          16);
    }
  }
}

}  // namespace

int64_t lineThickness(int32_t width, int32_t height) {
  // About 4 pixels in a 720-line picture.
  return 2 * std::max<int64_t>(1, std::min(width, height) / 320);
}

void drawOutlines(std::span<const Component, planeCount> picture, int32_t width, int32_t height,
                  std::span<const FaceRect> faces) {
  for (const FaceRect& face : faces)
    for (const Area& line : linesOf(face, width, height))
      for (int32_t plane = 0; plane < planeCount; ++plane) {
        const Patch patch =
            patchOf(picture[static_cast<size_t>(plane)], plane, width, height, line);
        for (int64_t y = 0; y < patch.height; ++y)
          patch.fill(y, 0, patch.width, lineColor[plane]);
      }
}

FaceRect withMargin(const FaceRect& face, int32_t percent) {
  const int64_t x = (int64_t{face.right} - face.left) * percent / 100;
  const int64_t y = (int64_t{face.bottom} - face.top) * percent / 100;
  return {saturated(face.left - x), saturated(face.top - y), saturated(face.right + x),
          saturated(face.bottom + y)};
}

void hideFace(std::span<const Component, planeCount> picture, int32_t width, int32_t height,
              const FaceRect& face, const HidingStyle& style) {
  const FaceRect covered = withMargin(face, style.margin);
  const bool isEllipse = style.shape == HidingShape::ellipse;
  const Area area = isEllipse ? aroundEllipse(covered)
                              : Area{covered.left, covered.top, covered.right, covered.bottom};
  for (int32_t plane = 0; plane < planeCount; ++plane) {
    const Component& component = picture[static_cast<size_t>(plane)];
    const Patch patch = patchOf(component, plane, width, height, area);
    if (patch.width == 0 || patch.height == 0)
      continue;
    Rows hidden(static_cast<size_t>(patch.height), {0, patch.width});
    if (isEllipse) {
      for (int64_t y = 0; y < patch.height; ++y) {
        const auto [left, right] = columnsInEllipse(covered, plane, patch.top + y);
        hidden[static_cast<size_t>(y)] = {std::clamp<int64_t>(left - patch.left, 0, patch.width),
                                          std::clamp<int64_t>(right - patch.left, 0, patch.width)};
      }
    }
    if (style.how != Hiding::solid)
      spread(Means(patch), patch, hidden, style.how == Hiding::blur);
    else
      for (int64_t y = 0; y < patch.height; ++y)
        patch.fill(y, hidden[static_cast<size_t>(y)].first, hidden[static_cast<size_t>(y)].second,
                   black[plane]);
  }
}

}  // namespace tavro::host
