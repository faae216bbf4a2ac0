// The decoder: the limits of threshold and overlap, and random outputs against a decoder with
// priors of its own, which works in another order and in double precision.

#include "modules/face_detection/box_decoder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>
#include <vector>

#include "tests/support/random.h"

namespace TavroRTC::FDModule {
namespace {

/// A network output without any face, to be filled in by the test.
struct Outputs {
  std::vector<float> boxes = std::vector<float>(priorCount * 4, 0.0F);
  std::vector<float> scores = std::vector<float>(priorCount * 2, 0.0F);

  void setScore(size_t prior, float score) {
    scores[2 * prior] = 1.0F - score;
    scores[2 * prior + 1] = score;
  }
  std::vector<Detection> decode(int32_t width = 192, int32_t height = 192,
                                float threshold = 0.5F) const {
    BoxDecoder decoder;
    decoder.scoreThreshold = threshold;
    decoder.keepLimit = 5;
    generatePriors(decoder.priors);
    return decoder.decode(width, height, boxes.data(), scores.data());
  }
};

// The decoder a second time, with its own priors. It chooses the best open box each time instead of
// sorting.
struct ReferenceBox {
  double left, top, right, bottom, score;
  int32_t prior;
};

double overlapOf(const ReferenceBox& a, const ReferenceBox& b) {
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
};

ReferenceBoxes referenceBoxes(const Outputs& outputs, int32_t width, int32_t height,
                              double threshold) {
  constexpr double suppressingOverlap = 0.2;
  const std::pair<int32_t, std::vector<double>> levels[] = {
      {24, {8, 16, 32}}, {12, {64, 96}}, {6, {128, 192}}};
  ReferenceBoxes result;
  std::vector<ReferenceBox> open;
  const float* offset = outputs.boxes.data();
  int32_t prior = 0;
  for (const auto& [cells, sides] : levels)
    for (int32_t cell = 0; cell < cells * cells; ++cell)
      for (const double side : sides) {
        const double s = side / 192;
        const double x = (cell % cells + 0.5) / cells + 0.1 * s * offset[0];
        const int32_t row = cell / cells;
        const double y = (row + 0.5) / cells + 0.1 * s * offset[1];
        const double halfWidth = s * std::exp(0.2 * offset[2]) / 2;
        const double halfHeight = s * std::exp(0.2 * offset[3]) / 2;
        offset += 4;
        const double score = outputs.scores[2 * static_cast<size_t>(prior) + 1];
        result.closestCall = std::min(result.closestCall, std::abs(score - threshold));
        if (score > threshold)
          open.push_back({(x - halfWidth) * width, (y - halfHeight) * height,
                          (x + halfWidth) * width, (y + halfHeight) * height, score, prior});
        ++prior;
      }
  while (!open.empty() && result.kept.size() < 6) {
    const ReferenceBox best = *std::ranges::max_element(open, {}, &ReferenceBox::score);
    result.kept.push_back(best);
    std::erase_if(open, [&](const ReferenceBox& box) {
      const double common = overlapOf(best, box);
      result.closestCall = std::min(result.closestCall, std::abs(common - suppressingOverlap));
      return common >= suppressingOverlap;
    });
  }
  return result;
}

std::vector<int32_t> priorsOf(const std::vector<Detection>& detections) {
  std::vector<int32_t> indices(detections.size());
  std::ranges::transform(detections, indices.begin(), &Detection::priorIndex);
  return indices;
}

TEST(BoxDecoder, ScoreMustExceedTheThreshold) {
  Outputs outputs;
  outputs.setScore(0, 0.5F);
  outputs.setScore(300, std::nextafter(0.5F, 1.0F));
  outputs.setScore(600, std::numeric_limits<float>::quiet_NaN());
  outputs.scores[1800] = 1.0F;  // a sure no
  EXPECT_EQ(priorsOf(outputs.decode()), std::vector<int32_t>{300});
  EXPECT_TRUE(Outputs().decode().empty());
}

TEST(BoxDecoder, EqualScoresStayInPriorOrder) {
  // The smallest priors of neighbouring cells, which hardly overlap.
  for (const size_t count : {size_t{7}, size_t{17}, size_t{32}}) {
    Outputs outputs;
    for (size_t i = 0; i < count; ++i)
      outputs.setScore(3 * i, 0.9F);
    outputs.setScore(300, 0.95F);
    EXPECT_EQ(priorsOf(outputs.decode()), (std::vector<int32_t>{300, 0, 3, 6, 9, 12})) << count;
  }
}

TEST(BoxDecoder, OverlapFromOneFifthOnSuppresses) {
  // Sides count both ends. Exactly one fifth: one pixel in a column of five, both around (4, 4) of
  // the input. With an offset of minus infinity a side is a single pixel.
  Outputs outputs;
  const float onePixel = -std::numeric_limits<float>::infinity();
  outputs.setScore(0, 0.9F);
  outputs.setScore(1, 0.9F);
  outputs.boxes[2] = outputs.boxes[6] = outputs.boxes[7] = onePixel;
  EXPECT_EQ(outputs.decode(192, 96).size(), 1U);
  EXPECT_EQ(outputs.decode(192, 97).size(), 2U);

  // A line of pixels and the same line in the next column or row don't meet at all.
  const std::pair<size_t, size_t> neighbours[] = {{3, 2}, {72, 3}};
  for (const auto& [prior, side] : neighbours) {
    Outputs lines;
    for (const size_t i : {size_t{0}, prior}) {
      lines.setScore(i, 0.9F);
      lines.boxes[4 * i + side] = onePixel;
    }
    EXPECT_EQ(lines.decode().size(), 2U) << prior;
  }
}

TEST(BoxDecoder, RandomOutputsAgreeWithTheReference) {
  int compared = 0;
  constexpr int rounds = 60;
  for (int round = 0; round < rounds; ++round) {
    const uint64_t seed = tavro::test::baseSeed() + static_cast<uint64_t>(round);
    SCOPED_TRACE(tavro::test::seedNote(seed));
    tavro::test::Random random(seed);
    Outputs outputs;
    // Distinct scores, so that there is one right order; from a handful of candidates to all.
    const int32_t candidates = round % 3 == 0 ? 2088 : random.between(1, 100);
    const int32_t step = 2 * 3 * 29 * random.between(1, 11) + 1;  // prime to 2088 = 8 * 9 * 29
    for (int32_t k = 0; k < candidates; ++k)
      outputs.setScore(static_cast<size_t>(k * step % 2088),
                       0.65F + 0.0001F * static_cast<float>(k + 1));
    for (float& value : outputs.boxes)
      value = random.real(-6, 6);
    const int32_t width = random.between(1, 4000);
    const int32_t height = random.between(1, 4000);

    const ReferenceBoxes expected = referenceBoxes(outputs, width, height, 0.65F);
    if (expected.closestCall < 1e-5)
      continue;  // either answer is right
    ++compared;
    const std::vector<Detection> found = outputs.decode(width, height, 0.65F);
    ASSERT_EQ(found.size(), expected.kept.size());
    // A coordinate is at most 10 roundings of values up to twice the frame's size.
    const double tolerance = 10 * std::ldexp(1.0, -24) * 2 * std::max(width, height);
    for (size_t k = 0; k < found.size(); ++k) {
      const ReferenceBox& box = expected.kept[k];
      EXPECT_TRUE(found[k].priorIndex == box.prior && found[k].score == box.score) << k;
      EXPECT_NEAR(found[k].x1, box.left, tolerance);
      EXPECT_NEAR(found[k].y1, box.top, tolerance);
      EXPECT_NEAR(found[k].x2, box.right, tolerance);
      EXPECT_NEAR(found[k].y2, box.bottom, tolerance);
    }
  }
  EXPECT_GE(compared, rounds / 2);
}

TEST(BoxDecoder, OutputsThatAreNotFiniteDoNoHarm) {
  tavro::test::TracedRandom random;
  constexpr float infinite = std::numeric_limits<float>::infinity();
  constexpr float odd[] = {infinite, -infinite, std::numeric_limits<float>::quiet_NaN(),
                           1e38F,    -1e38F,    0.0F};
  Outputs outputs;
  for (std::vector<float>* values : {&outputs.boxes, &outputs.scores})
    for (float& value : *values)
      value = odd[random.between(0, 5)];
  const size_t found = outputs.decode(32768, 32768).size();
  EXPECT_TRUE(found >= 1 && found <= 6) << found;
}

}  // namespace
}  // namespace TavroRTC::FDModule
