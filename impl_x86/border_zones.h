#pragma once

// Border zones: 3x3 with any padding and dilation, so that several columns at either end of a row
// have taps outside the image. Those columns go by the pixel path, which clips its taps; the
// columns between them go in tiles, where all taps are inside.
//
// Neighbouring border columns with the same taps share a step. That changes no sum, and it keeps
// the multiply-add units busy where a single pixel's few sums would wait for each other.
//
// Order of the sums: bias, then in a tile, for each ky, for each input channel: kx 0, 1, 2; in the
// pixel path, for each ky, for each kx: the input channels. All terms are fused but those of the
// pixel path of conv3x3any_4x6, whose multiply and add are each rounded.

#include "engine/simd/conv_zones.h"
#include "engine/simd/vectors.h"
#include "impl_x86/avx_kernels.h"

namespace TavroRTC::FDModule::x86 {
namespace {

enum class Path { tile, border };

// One tap of `pixels` pixels and one input channel.
template <typename Vector, int block, int pixels>
void addTap(Sums<Vector, block, pixels>& sums, const float* input, ptrdiff_t pixelStride,
            const float* weights) {
  constexpr int vectors = Sums<Vector, block, pixels>::vectors;
  Vector weight[vectors];
  for (int v = 0; v < vectors; ++v)
    weight[v] = Vector::load(weights + v * Vector::lanes);
  unrolled<pixels>([&](int pixel) __attribute__((always_inline)) {
    const Vector value = Vector::broadcast(input + pixel * pixelStride);
    for (int v = 0; v < vectors; ++v)
      sums.at[pixel][v] = multiplyAdd(value, weight[v], sums.at[pixel][v]);
  });
}

template <typename Vector, int block, int pixels, Path path>
void computePixels(const ConvProblem& p, int32_t y, int32_t x, TapRange rows, TapRange columns) {
  const ptrdiff_t channels = p.inputC;
  const ptrdiff_t pixelStride = p.strideW * channels;
  const ptrdiff_t tapStride = p.dilationW * channels;
  const ptrdiff_t weightTap = channels * block;
  const ptrdiff_t left = x * p.strideW - p.padLeft;
  float* output = p.output + (static_cast<ptrdiff_t>(y) * p.outputW + x) * p.outputC;

  const int32_t blocks = blockCount(block, p.outputC);
  for (int32_t index = 0; index < blocks; ++index) {
    const int32_t channel = blockStart(index, block, p.outputC);
    Sums<Vector, block, pixels> sums;
    sums.start(p.bias != nullptr ? p.bias + channel : nullptr);
    for (int32_t ky = rows.begin; ky < rows.end; ++ky) {
      const ptrdiff_t inputY = y * p.strideH - p.padTop + ky * p.dilationH;
      const float* input = p.input + (inputY * p.inputW + left) * channels;
      const float* weights = p.weights + (index * 9 + ky * 3) * weightTap;
      if constexpr (path == Path::tile) {
        for (ptrdiff_t i = 0; i < channels; ++i)
          for (int kx = 0; kx < 3; ++kx)
            addTap(sums, input + kx * tapStride + i, pixelStride,
                   weights + kx * weightTap + i * block);
      } else {
        for (int32_t kx = columns.begin; kx < columns.end; ++kx)
          for (ptrdiff_t i = 0; i < channels; ++i)
            addTap(sums, input + kx * tapStride + i, pixelStride,
                   weights + kx * weightTap + i * block);
      }
    }
    sums.store(output + channel, p.outputC, p.activation);
  }
}

// How many columns from x on have the same taps, up to `most`.
inline int32_t columnsAlike(const ConvProblem& p, int32_t x, int32_t most) {
  const TapRange taps = columnTaps(p, x);
  int32_t alike = 1;
  for (; alike < most; ++alike) {
    const TapRange next = columnTaps(p, x + alike);
    if (next.begin != taps.begin || next.end != taps.end)
      break;
  }
  return alike;
}

// `count` columns with the same taps, at most `most`.
template <typename Vector, int block, int most>
void computeAlike(const ConvProblem& p, int32_t y, int32_t x, int32_t count, TapRange rows) {
  if (count == most)
    computePixels<Vector, block, most, Path::border>(p, y, x, rows, columnTaps(p, x));
  else if constexpr (most > 1)
    computeAlike<Vector, block, most - 1>(p, y, x, count, rows);
}

// The columns from begin to end - 1.
template <typename Vector, int block, int most>
void computeBorder(const ConvProblem& p, int32_t y, int32_t begin, int32_t end, TapRange rows) {
  for (int32_t x = begin; x < end;) {
    const int32_t count = columnsAlike(p, x, least(most, end - x));
    computeAlike<Vector, block, most>(p, y, x, count, rows);
    x += count;
  }
}

// The columns from x to end - 1, a multiple of `tile`, in steps of `most` while they last.
template <typename Vector, int block, int tile, int most>
void computeMiddle(const ConvProblem& p, int32_t y, int32_t x, int32_t end, TapRange rows) {
  for (; x + most <= end; x += most)
    computePixels<Vector, block, most, Path::tile>(p, y, x, rows, {0, 3});
  if constexpr (most > tile)
    computeMiddle<Vector, block, tile, most - tile>(p, y, x, end, rows);
}

// The tile decides where the middle of a row ends, and so which order a sum is taken in; a step may
// have more pixels.
template <typename Vector, typename BorderVector, int block, int tile, int middleStep = tile,
          int borderStep = tile>
bool runBorderZones(const ConvProblem& p) {
  const ColumnZones zones = columnZones(p, tile);
  for (int32_t y = 0; y < p.outputH; ++y) {
    const TapRange rows = rowTaps(p, y);
    computeBorder<BorderVector, block, borderStep>(p, y, 0, zones.tileBegin, rows);
    computeMiddle<Vector, block, tile, middleStep>(p, y, zones.tileBegin, zones.tileEnd, rows);
    computeBorder<BorderVector, block, borderStep>(p, y, zones.tileEnd, p.outputW, rows);
  }
  return true;
}

inline bool servesDilated(const ConvProblem& p) {
  return is3x3(p) && p.strideW == 1 && fillsBlocks(p.outputC, 16);
}

}  // namespace
}  // namespace TavroRTC::FDModule::x86
