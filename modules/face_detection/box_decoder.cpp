#include "modules/face_detection/box_decoder.h"

#include <algorithm>
#include <cmath>

#include "modules/face_detection/network_input.h"

namespace TavroRTC::FDModule {
namespace {

struct Grid {
  int cells;     // along each side of the input
  float stride;  // side of a cell in input pixels
  int sizeCount;
  std::array<float, 3> sizes;  // sides of a cell's priors in input pixels
};

constexpr std::array<Grid, 3> grids = {{
    {24, 8, 3, {8, 16, 32}},
    {12, 16, 2, {64, 96}},
    {6, 32, 2, {128, 192}},
}};

constexpr size_t countPriors() {
  size_t count = 0;
  for (const Grid& grid : grids)
    count += static_cast<size_t>(grid.cells * grid.cells * grid.sizeCount);
  return count;
}
static_assert(countPriors() == priorCount);

// By these factors the network's offsets were enlarged in training: centres and sizes come out in
// similar ranges.
constexpr float centreVariance = 0.1F;
constexpr float sizeVariance = 0.2F;

constexpr double overlapLimit = 0.2;

Detection decodeBox(const PriorBox& prior, const float* offsets, float width, float height) {
  const float cx = offsets[0] * centreVariance * prior.w + prior.cx;
  const float cy = offsets[1] * centreVariance * prior.h + prior.cy;
  const float halfWidth = std::exp(offsets[2] * sizeVariance) * prior.w * 0.5F;
  const float halfHeight = std::exp(offsets[3] * sizeVariance) * prior.h * 0.5F;
  return {.x1 = (cx - halfWidth) * width,
          .y1 = (cy - halfHeight) * height,
          .x2 = (halfWidth + cx) * width,
          .y2 = (halfHeight + cy) * height};
}

// Sides count both border pixels, unlike those of a FaceRect.
float area(const Detection& box) {
  return (box.x2 - box.x1 + 1.0F) * (box.y2 - box.y1 + 1.0F);
}

float intersectionOverUnion(const Detection& a, const Detection& b) {
  const float width = std::min(a.x2, b.x2) - std::max(a.x1, b.x1) + 1.0F;
  const float height = std::min(a.y2, b.y2) - std::max(a.y1, b.y1) + 1.0F;
  const float inter = std::max(width, 0.0F) * std::max(height, 0.0F);
  return inter / (area(b) + area(a) - inter);
}

}  // namespace

void generatePriors(std::span<PriorBox, priorCount> priors) {
  auto prior = priors.begin();
  for (const Grid& grid : grids) {
    const auto cellCentre = [&](int cell, float inputSide) {
      return (static_cast<float>(cell) + 0.5F) * grid.stride / inputSide;
    };
    for (int row = 0; row < grid.cells; ++row)
      for (int column = 0; column < grid.cells; ++column)
        for (size_t k = 0; k < static_cast<size_t>(grid.sizeCount); ++k) {
          *prior++ = {cellCentre(column, inputWidth), cellCentre(row, inputHeight),
                      grid.sizes[k] / inputWidth, grid.sizes[k] / inputHeight};
        }
  }
}

std::vector<Detection> BoxDecoder::decode(int32_t frameWidth, int32_t frameHeight,
                                          const float* boxes, const float* scores) {
  collectCandidates(static_cast<float>(frameWidth), static_cast<float>(frameHeight), boxes, scores);
  // Equal scores stay in the order of their priors. std::sort alone doesn't promise that.
  std::sort(candidates.begin(), candidates.end(), [](const Detection& a, const Detection& b) {
    return a.score != b.score ? a.score > b.score : a.priorIndex < b.priorIndex;
  });
  suppressOverlaps();
  return kept;
}

void BoxDecoder::collectCandidates(float width, float height, const float* boxes,
                                   const float* scores) {
  candidates.clear();
  for (size_t i = 0; i < priorCount; ++i) {
    const float score = scores[2 * i + 1];
    if (!(score > scoreThreshold))
      continue;
    Detection& box = candidates.emplace_back(decodeBox(priors[i], boxes + 4 * i, width, height));
    box.score = score;
    box.priorIndex = static_cast<int32_t>(i);
  }
}

void BoxDecoder::suppressOverlaps() {
  kept.clear();
  for (Detection& best : candidates) {
    if (best.suppressed != 0)
      continue;
    best.suppressed = 1;
    kept.push_back(best);
    if (static_cast<int64_t>(kept.size()) > keepLimit)
      return;
    // The boxes in front of it are decided already.
    for (Detection& other : candidates)
      if (other.suppressed == 0 && intersectionOverUnion(best, other) >= overlapLimit)
        other.suppressed = 1;
  }
}

}  // namespace TavroRTC::FDModule
