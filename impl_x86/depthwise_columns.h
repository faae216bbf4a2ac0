#pragma once

// Depthwise: 3x3, one filter a channel. The vector runs over channels of input and output together.
// A row is done block by block of channels: the weights of a kernel row stay in registers while the
// pixels of a tile take them in turn, and an input column is loaded once for all taps that share
// it. With at most one tap of padding the columns at the border go in tiles like all others: a tile
// there just leaves out the input column that isn't in the image. Of wider padding each column goes
// by itself.
//
// Order of the sums: bias, then ky, kx. It is the same for every column, so a pixel's value doesn't
// depend on the tile that computed it.

#include "engine/simd/conv_zones.h"
#include "engine/simd/vectors.h"
#include "impl_x86/avx_kernels.h"

namespace TavroRTC::FDModule::x86 {
namespace {

inline constexpr int depthwiseBlock = 16;

// What the columns of one output row have in common, for one block of channels.
struct RowBlock {
  const float* input;   // the block's first channel in the first column of the row of ky 0
  ptrdiff_t rowStride;  // floats between rows, and between columns
  ptrdiff_t channels;
  int32_t padLeft;
  TapRange rows;
  const float* filter;  // ky, kx, 16 lanes
  const float* bias;
  float* output;
  const FusedActivation& activation;
};

// The input column of tap 2 of the last pixel may lie behind the image, that of tap 0 of the first
// one before it.
template <typename Vector, int pixels, int strideW, bool atLeft, bool atRight>
[[gnu::noinline]] void computeColumns(const RowBlock& row, int32_t x) {
  using Step = Sums<Vector, depthwiseBlock, pixels>;
  constexpr int columns = (pixels - 1) * strideW + 3;
  Step sums;
  sums.start(row.bias);
  for (int32_t ky = row.rows.begin; ky < row.rows.end; ++ky) {
    const float* input =
        row.input + ky * row.rowStride + (x * strideW - row.padLeft) * row.channels;
    const float* filter = row.filter + ky * 3 * depthwiseBlock;
    for (int v = 0; v < Step::vectors; ++v) {
      Vector weight[3];
      for (int tap = 0; tap < 3; ++tap)
        weight[tap] = Vector::load(filter + tap * depthwiseBlock + v * Vector::lanes);
      const float* next = input + v * Vector::lanes;
      unrolled<columns>([&](int column) __attribute__((always_inline)) {
        const float* address = next;
        next += row.channels;
        if ((atLeft && column == 0) || (atRight && column == columns - 1))
          return;
        const Vector value = Vector::load(address);
        unrolled<pixels>([&](int pixel) __attribute__((always_inline)) {
          const int tap = column - pixel * strideW;
          if (tap >= 0 && tap < 3)
            sums.at[pixel][v] = multiplyAdd(value, weight[tap], sums.at[pixel][v]);
        });
      });
    }
  }
  sums.store(row.output + x * row.channels, row.channels, row.activation);
}

// A row whose padding is one tap at most: tiles of `pixels` columns, then of half as many, and so
// on.
template <typename Vector, int pixels, int strideW>
void computeRow(const ConvProblem& p, const RowBlock& row, int32_t x) {
  for (; x + pixels <= p.outputW; x += pixels) {
    const bool atLeft = x * strideW < p.padLeft;
    const bool atRight = (x + pixels - 1) * strideW - p.padLeft + 2 >= p.inputW;
    if (atLeft && atRight)
      computeColumns<Vector, pixels, strideW, true, true>(row, x);
    else if (atLeft)
      computeColumns<Vector, pixels, strideW, true, false>(row, x);
    else if (atRight)
      computeColumns<Vector, pixels, strideW, false, true>(row, x);
    else
      computeColumns<Vector, pixels, strideW, false, false>(row, x);
  }
  if constexpr (pixels > 1)
    computeRow<Vector, pixels / 2, strideW>(p, row, x);
}

// One column with any range of taps inside.
template <typename Vector>
void computeColumn(const ConvProblem& p, const RowBlock& row, int32_t x) {
  using Step = Sums<Vector, depthwiseBlock, 1>;
  const TapRange taps = columnTaps(p, x);
  const ptrdiff_t left = x * p.strideW - p.padLeft;
  Step sums;
  sums.start(row.bias);
  for (int32_t ky = row.rows.begin; ky < row.rows.end; ++ky)
    for (int32_t kx = taps.begin; kx < taps.end; ++kx)
      for (int v = 0; v < Step::vectors; ++v)
        sums.at[0][v] = multiplyAdd(
            Vector::load(row.input + ky * row.rowStride + (left + kx) * row.channels +
                         v * Vector::lanes),
            Vector::load(row.filter + (ky * 3 + kx) * depthwiseBlock + v * Vector::lanes),
            sums.at[0][v]);
  sums.store(row.output + x * row.channels, row.channels, row.activation);
}

// Only the very first and the very last tap of a row may lie outside the image.
inline bool hasNarrowBorder(const ConvProblem& p) {
  const int32_t lastTap = (p.outputW - 1) * p.strideW - p.padLeft + 2;
  return p.padLeft <= 1 && lastTap <= p.inputW &&
         (p.outputW == 1 || lastTap - p.strideW < p.inputW);
}

template <typename Vector, int tile, int strideW>
bool computeImage(const ConvProblem& p) {
  const bool inTiles = hasNarrowBorder(p);
  const ptrdiff_t channels = p.outputC;
  const ptrdiff_t rowStride = p.inputW * channels;
  for (int32_t y = 0; y < p.outputH; ++y) {
    for (ptrdiff_t channel = 0; channel < channels; channel += depthwiseBlock) {
      const ptrdiff_t top = y * p.strideH - p.padTop;
      const RowBlock row = {p.input + top * rowStride + channel,
                            rowStride,
                            channels,
                            p.padLeft,
                            rowTaps(p, y),
                            p.weights + channel * 9,
                            p.bias != nullptr ? p.bias + channel : nullptr,
                            p.output + y * p.outputW * channels + channel,
                            p.activation};
      if (inTiles)
        computeRow<Vector, tile, strideW>(p, row, 0);
      else
        for (int32_t x = 0; x < p.outputW; ++x)
          computeColumn<Vector>(p, row, x);
    }
  }
  return true;
}

template <typename Vector, int tile>
bool runDepthwise(const ConvProblem& p) {
  return p.strideW == 1 ? computeImage<Vector, tile, 1>(p) : computeImage<Vector, tile, 2>(p);
}

}  // namespace
}  // namespace TavroRTC::FDModule::x86
