#pragma once

// The prior boxes: a fixed set of squares spread over the network's input picture. The network says
// nothing but how probable a face is at each of them and how it lies relative to it, so row i of
// its outputs means something only together with prior i.
//
// Three grids of growing cells carry them: many small squares on the fine grid, few large ones on
// the coarse grid. A grid is listed row by row, and the sizes of one cell lie next to each other.

#include <cstddef>
#include <span>

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

}  // namespace TavroRTC::FDModule
