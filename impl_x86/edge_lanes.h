#pragma once

// Edge lanes: 3x3 with so little padding that only one tap of a row's first pixel and one of its
// last can lie outside the image. The whole row goes in tiles; where a tap is outside, a zero
// vector takes the place of the input value and the sequence of operations stays the same.
//
// The last tile of a row is moved back to end at the last column; the pixels that it shares with
// its neighbour come out the same.
//
// Order of the sums: bias, then for each ky, for each input channel: kx 0, 1, 2.

#include "engine/simd/conv_zones.h"
#include "engine/simd/vectors.h"
#include "impl_x86/avx_kernels.h"

namespace TavroRTC::FDModule::x86 {
namespace {

// The geometry along a row. These kernels serve a left padding of just one tap's distance.
template <int strideW, int dilationW>
struct Columns {
  static constexpr int stride = strideW;
  static constexpr int dilation = dilationW;
  static constexpr int padding = dilationW;

  static bool matches(const ConvProblem& p) {
    return p.strideW == stride && p.dilationW == dilation && p.padLeft == padding;
  }
  /// The input column of the last tap of output column x.
  static constexpr int32_t lastTap(int32_t x) { return x * stride - padding + 2 * dilation; }
};

// One tile of a row, all channels. Which of the two edges of the image the tile touches is known at
// compile time, so that no test stands in the loop.
template <typename Vector, int block, int tile, typename Geometry, bool atLeft, bool atRight>
void computeTile(const ConvProblem& p, int32_t y, int32_t x, TapRange rows) {
  using Step = Sums<Vector, block, tile>;
  const ptrdiff_t channels = p.inputC;
  const ptrdiff_t weightTap = channels * block;
  const ptrdiff_t inputRow = static_cast<ptrdiff_t>(p.inputW) * channels;
  const ptrdiff_t firstColumn = x * Geometry::stride - Geometry::padding;
  float* output = p.output + (static_cast<ptrdiff_t>(y) * p.outputW + x) * p.outputC;

  const int32_t blocks = blockCount(block, p.outputC);
  for (int32_t index = 0; index < blocks; ++index) {
    const int32_t channel = blockStart(index, block, p.outputC);
    const float* blockWeights = p.weights + index * 9 * weightTap;
    Step sums;
    sums.start(p.bias != nullptr ? p.bias + channel : nullptr);
    for (int32_t ky = rows.begin; ky < rows.end; ++ky) {
      const ptrdiff_t inputY = y * p.strideH - p.padTop + ky * p.dilationH;
      const float* input = p.input + inputY * inputRow + firstColumn * channels;
      const float* weights = blockWeights + 3 * ky * weightTap;
      for (ptrdiff_t i = 0; i < channels; ++i, ++input, weights += block) {
        for (int kx = 0; kx < 3; ++kx) {
          Vector weight[Step::vectors];
          for (int v = 0; v < Step::vectors; ++v)
            weight[v] = Vector::load(weights + kx * weightTap + v * Vector::lanes);
          unrolled<tile>([&](int pixel) __attribute__((always_inline)) {
            const bool outside =
                (atLeft && pixel == 0 && kx == 0) || (atRight && pixel == tile - 1 && kx == 2);
            const Vector value =
                outside
                    ? Vector::zero()
                    : Vector::broadcast(
                          input + (pixel * Geometry::stride + kx * Geometry::dilation) * channels);
            for (int v = 0; v < Step::vectors; ++v)
              sums.at[pixel][v] = multiplyAdd(value, weight[v], sums.at[pixel][v]);
          });
        }
      }
    }
    sums.store(output + channel, p.outputC, p.activation);
  }
}

// Rows that are shorter than the tile go in tiles of `shortTile`.
template <typename Vector, int block, int tile, typename Geometry, int shortTile = tile>
bool runEdgeLanes(const ConvProblem& p) {
  if constexpr (shortTile < tile)
    if (p.outputW < tile)
      return runEdgeLanes<Vector, block, shortTile, Geometry>(p);
  for (int32_t y = 0; y < p.outputH; ++y) {
    const TapRange rows = rowTaps(p, y);
    for (int32_t next = 0; next < p.outputW; next += tile) {
      const int32_t x = least(next, p.outputW - tile);
      const bool atLeft = x == 0;
      const bool atRight = Geometry::lastTap(x + tile - 1) >= p.inputW;
      if (atLeft && atRight)
        computeTile<Vector, block, tile, Geometry, true, true>(p, y, x, rows);
      else if (atLeft)
        computeTile<Vector, block, tile, Geometry, true, false>(p, y, x, rows);
      else if (atRight)
        computeTile<Vector, block, tile, Geometry, false, true>(p, y, x, rows);
      else
        computeTile<Vector, block, tile, Geometry, false, false>(p, y, x, rows);
    }
  }
  return true;
}

// A row must hold a whole tile, and only the very last tap may lie behind the image.
template <int tile, typename Geometry>
bool fitsGeometry(const ConvProblem& p) {
  return is3x3(p) && Geometry::matches(p) && p.outputW >= tile &&
         Geometry::lastTap(p.outputW - 1) - Geometry::dilation < p.inputW &&
         Geometry::lastTap(p.outputW - 2) < p.inputW;
}
template <int block, int tile, typename Geometry>
bool servesEdgeLanes(const ConvProblem& p) {
  return fitsGeometry<tile, Geometry>(p) && fillsBlocks(p.outputC, block);
}

}  // namespace
}  // namespace TavroRTC::FDModule::x86
