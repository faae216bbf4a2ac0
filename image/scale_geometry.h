#pragma once

// Where a scaler samples its source. Positions and steps are 16.16 fixed point: the upper 16 bits
// are a sample's index, the lower 16 bits the way to the next sample. All divisions are done in 64
// bits and truncated; results are the lower 32 bits.

#include "image/image_desc.h"

namespace TavroRTC::FDModule {

/// a / b. Only 32768 / 1 doesn't fit: it wraps to the lowest number, and centerStart allows for it.
int32_t fixedRatio(int32_t a, int32_t b);

/// The step that puts the last of b > 1 positions just below the last of a samples, so that it
/// still has a neighbour to the right. A single sample has none: the step is then 0, or -1 for
/// b = 2.
int32_t fixedRatioLast(int32_t a, int32_t b);

/// Half a step, plus `shift`.
int32_t centerStart(int32_t step, int32_t shift);

/// The first position x, y and the steps dx, dy of a whole image; sizes are at least 1. `Nearest`
/// and `Linear` look at the middle of the span that a destination sample covers. `Bilinear`
/// interpolates between the middles of samples, half a sample further on, and when it enlarges it
/// spreads the destination from the first sample to the last.
void computeScaleSlopes(int32_t srcWidth, int32_t srcHeight, int32_t dstWidth, int32_t dstHeight,
                        ScaleFilter filter, int32_t& x, int32_t& y, int32_t& dx, int32_t& dy);

}  // namespace TavroRTC::FDModule
