#pragma once

// BoxDecoder: from the network's raw output to a short list of boxes.
//
//   scores, offsets --threshold--> candidates --sort, suppress overlaps--> kept, best first
//
// The prior boxes are a fixed set of squares spread over the network's input picture. For each of
// them the network tells how probable a face is there and how it lies relative to the square, so
// row i of its outputs belongs to prior i. There are three grids: many small squares on the fine
// one, few large ones on the coarse one. A grid is listed row by row, and the sizes of one cell lie
// next to each other.
//
// Priors that score above the threshold are shifted and stretched by their offsets; of boxes that
// overlap, the best is kept. Each frame has a decoder of its own.

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace TavroRTC::FDModule {

/// A square of the network's input, in fractions of its width and height. It isn't clipped to it.
struct PriorBox {
  float cx = 0;  ///< centre
  float cy = 0;
  float w = 0;
  float h = 0;
};

inline constexpr size_t priorCount = 2088;

/// Writes all priors in the order of the network's output rows.
void generatePriors(std::span<PriorBox, priorCount> priors);

/// A box in pixels of the source frame. It may reach over the frame's edges.
struct Detection {
  float x1 = 0;
  float y1 = 0;
  float x2 = 0;
  float y2 = 0;
  float score = 0;
  int32_t suppressed = 0;  ///< 1 once the box has been kept or thrown out
  int32_t priorIndex = 0;
};

class BoxDecoder {
 public:
  /// `boxes` holds four offsets and `scores` two probabilities (no face, face) for each prior. The
  /// priors must have been generated. The result is a copy of `kept`. Values that aren't finite are
  /// carried along, and a score that is NaN is below any threshold.
  std::vector<Detection> decode(int32_t frameWidth, int32_t frameHeight, const float* boxes,
                                const float* scores);

  std::vector<Detection> kept;  ///< best first
  float scoreThreshold = 0;     ///< a box must score above it
  int32_t keepLimit = 0;        ///< the box that exceeds it is the last one kept
  std::array<PriorBox, priorCount> priors;
  std::vector<Detection> candidates;

 private:
  void collectCandidates(float width, float height, const float* boxes, const float* scores);
  void suppressOverlaps();
};

}  // namespace TavroRTC::FDModule
