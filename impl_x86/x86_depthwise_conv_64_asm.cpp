// Depthwise: 3x3, one filter a channel. The vector runs over channels of input and output together.
// A row is done block by block of channels: the weights of a kernel row stay in registers while the
// pixels of a tile take them in turn, and an input column is loaded once for all taps that share
// it. Columns with taps outside the image go one by one, the few that fill no tile in pairs.
//
// The file is named after the assembly that it stands for: its registers are planned one by one,
// and tests/binaries/inspect_binaries.py looks at what the compiler made of them.
//
// Order of the sums: bias, then ky, kx. It is the same for every column, so a pixel's value doesn't
// depend on the zone or on the kernel that computed it.

#include "engine/simd/conv_zones.h"
#include "impl_x86/avx_kernels.h"
#include "impl_x86/avx_vectors.h"

namespace TavroRTC::FDModule::x86 {
namespace {

constexpr int block = 16;
constexpr int vectors = block / Float8::lanes;

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

// `pixels` columns from x on, of which all taps from firstTap to endTap - 1 lie inside the image
// and the others outside.
template <int pixels, int strideW, int firstTap = 0, int endTap = 3>
void computeColumns(const RowBlock& row, int32_t x) {
  constexpr int taps = endTap - firstTap;
  constexpr int columns = (pixels - 1) * strideW + taps;
  Sums<Float8, block, pixels> sums;
  sums.start(row.bias);
  const ptrdiff_t firstColumn = x * strideW - row.padLeft + firstTap;
  for (int32_t ky = row.rows.begin; ky < row.rows.end; ++ky) {
    const float* input = row.input + ky * row.rowStride + firstColumn * row.channels;
    const float* filter = row.filter + (ky * 3 + firstTap) * block;
    for (int v = 0; v < vectors; ++v) {
      Float8 weight[taps];
      for (int tap = 0; tap < taps; ++tap)
        weight[tap] = Float8::load(filter + tap * block + v * Float8::lanes);
      for (int column = 0; column < columns; ++column) {
        const Float8 value = Float8::load(input + column * row.channels + v * Float8::lanes);
        for (int pixel = 0; pixel < pixels; ++pixel) {
          const int tap = column - pixel * strideW;
          if (tap >= 0 && tap < taps)
            sums.at[pixel][v] = multiplyAdd(value, weight[tap], sums.at[pixel][v]);
        }
      }
    }
  }
  sums.store(row.output + x * row.channels, row.channels, row.activation);
}

// One column with any range of taps inside; the ranges of a padding of one are unrolled.
template <int strideW>
void computeColumn(const RowBlock& row, int32_t x, TapRange taps) {
  if (taps.begin == 0 && taps.end == 3)
    return computeColumns<1, strideW>(row, x);
  if (taps.begin == 1 && taps.end == 3)
    return computeColumns<1, strideW, 1, 3>(row, x);
  if (taps.begin == 0 && taps.end == 2)
    return computeColumns<1, strideW, 0, 2>(row, x);

  Sums<Float8, block, 1> sums;
  sums.start(row.bias);
  const ptrdiff_t left = x * strideW - row.padLeft;
  for (int32_t ky = row.rows.begin; ky < row.rows.end; ++ky)
    for (int32_t kx = taps.begin; kx < taps.end; ++kx)
      for (int v = 0; v < vectors; ++v)
        sums.at[0][v] = multiplyAdd(
            Float8::load(row.input + ky * row.rowStride + (left + kx) * row.channels +
                         v * Float8::lanes),
            Float8::load(row.filter + (ky * 3 + kx) * block + v * Float8::lanes), sums.at[0][v]);
  sums.store(row.output + x * row.channels, row.channels, row.activation);
}

template <int tile, int strideW>
void computeRow(const ConvProblem& p, const RowBlock& row, ColumnZones zones, int32_t fullEnd) {
  for (int32_t x = 0; x < zones.tileBegin; ++x)
    computeColumn<strideW>(row, x, columnTaps(p, x));
  int32_t x = zones.tileBegin;
  for (; x < zones.tileEnd; x += tile)
    computeColumns<tile, strideW>(row, x);
  for (; x + 2 <= fullEnd; x += 2)
    computeColumns<2, strideW>(row, x);
  for (; x < p.outputW; ++x)
    computeColumn<strideW>(row, x, columnTaps(p, x));
}

template <int tile, int strideW>
void computeImage(const ConvProblem& p) {
  const ColumnZones zones = columnZones(p, tile);
  const int32_t fullEnd = columnZones(p, 1).tileEnd;
  const ptrdiff_t channels = p.outputC;
  const ptrdiff_t rowStride = p.inputW * channels;
  for (int32_t y = 0; y < p.outputH; ++y) {
    for (ptrdiff_t channel = 0; channel < channels; channel += block) {
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
      computeRow<tile, strideW>(p, row, zones, fullEnd);
    }
  }
}

bool run16x4(const ConvProblem& p) {
  if (p.strideW == 1)
    computeImage<4, 1>(p);
  else
    computeImage<4, 2>(p);
  return true;
}

bool run16x5(const ConvProblem& p) {
  computeImage<5, 1>(p);
  return true;
}

bool serves16x4(const ConvProblem& p) {
  return p.isKernel(3, 3) && (p.strideW == 1 || p.strideW == 2) && !p.isDilated() &&
         p.group == p.outputC && p.inputC == p.outputC && p.outputC % block == 0;
}

bool serves16x5(const ConvProblem& p) {
  return serves16x4(p) && p.strideW == 1;
}

}  // namespace

constinit const ConvKernel dwConv3x3_16x4 = {"dwConv3x3_16x4",  layout::block16, fusesRelu,
                                             ConvInput::floats, serves16x4,      run16x4};
constinit const ConvKernel dwConv3x3s1_16x5 = {"dwConv3x3s1_16x5", layout::block16, fusesRelu,
                                               ConvInput::floats,  serves16x5,      run16x5};

}  // namespace TavroRTC::FDModule::x86
