#pragma once

// What the detector must make of the network's outputs, a second time: in double precision, with
// priors of its own, and by choosing the best open box each time instead of sorting.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

namespace tavro::test {

struct ReferenceBox {
  double left, top, right, bottom, score;
  int32_t prior;
};

/// The overlap from which on a box gives way to a better one.
inline constexpr double suppressingOverlap = 0.2;

inline double overlapOf(const ReferenceBox& a, const ReferenceBox& b) {
  const auto area = [](double left, double top, double right, double bottom) {
    return std::max(right - left + 1, 0.0) * std::max(bottom - top + 1, 0.0);
  };
  const double common = area(std::max(a.left, b.left), std::max(a.top, b.top),
                             std::min(a.right, b.right), std::min(a.bottom, b.bottom));
  return common /
         (area(a.left, a.top, a.right, a.bottom) + area(b.left, b.top, b.right, b.bottom) - common);
}

struct ReferenceBoxes {
  std::vector<ReferenceBox> kept;  ///< in pixels of the frame, the best first, six at most
  /// How near a score or an overlap came to its limit: where that is next to nothing, rounding
  /// decides, and either answer is right.
  double closestCall = 1;
  double closestScores = 1;  ///< the same for the order of two boxes
};

/// `offset(i)` and `score(prior)` give the outputs: four offsets and the face's score of each
/// prior.
template <typename Offset, typename Score>
ReferenceBoxes referenceBoxes(const Offset& offset, const Score& score, int32_t width,
                              int32_t height, double threshold) {
  struct Level {
    int32_t cells;
    std::vector<double> sides;
  };
  const Level levels[] = {{24, {8, 16, 32}}, {12, {64, 96}}, {6, {128, 192}}};
  ReferenceBoxes result;
  std::vector<ReferenceBox> open;
  size_t i = 0;
  for (const Level& level : levels)
    for (int32_t cell = 0; cell < level.cells * level.cells; ++cell)
      for (const double side : level.sides) {
        const double s = side / 192;
        const double x = (cell % level.cells + 0.5) / level.cells + 0.1 * s * offset(4 * i);
        const int32_t row = cell / level.cells;
        const double y = (row + 0.5) / level.cells + 0.1 * s * offset(4 * i + 1);
        const double halfWidth = s * std::exp(0.2 * offset(4 * i + 2)) / 2;
        const double halfHeight = s * std::exp(0.2 * offset(4 * i + 3)) / 2;
        result.closestCall = std::min(result.closestCall, std::abs(score(i) - threshold));
        if (score(i) > threshold)
          open.push_back({(x - halfWidth) * width, (y - halfHeight) * height,
                          (x + halfWidth) * width, (y + halfHeight) * height, score(i),
                          static_cast<int32_t>(i)});
        ++i;
      }
  while (!open.empty() && result.kept.size() < 6) {
    const ReferenceBox best = *std::ranges::max_element(open, {}, &ReferenceBox::score);
    result.kept.push_back(best);
    std::erase_if(open, [&](const ReferenceBox& box) {
      if (box.prior != best.prior)
        result.closestScores = std::min(result.closestScores, best.score - box.score);
      const double common = overlapOf(best, box);
      result.closestCall = std::min(result.closestCall, std::abs(common - suppressingOverlap));
      return common >= suppressingOverlap;
    });
  }
  return result;
}

}  // namespace tavro::test
