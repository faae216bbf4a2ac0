#pragma once

// Rolling rows: both kernels keep three input rows in planar form, one row of inputW + 2 floats for
// each channel, with a zero at either end that stands for the padding. As the window moves down,
// the buffer of a row that drops out takes the next new row.
//
// conv3x3bytes_16x4 is the network's first layer: stride 2, straight from the bytes of the picture,
// which are converted row by row and never as a whole.
// conv3x3single_48 has one output channel: its vector runs along the row and weights are broadcast.
//
// Order of the sums: bias, then for each ky, for each input channel: kx 0, 2, 1 in the first
// kernel, kx 0, 1, 2 in the second.

#include "engine/aligned_memory.h"
#include "engine/number_conversion.h"
#include "engine/simd/conv_zones.h"
#include "engine/simd/vectors.h"
#include "impl_x86/avx_kernels.h"

namespace TavroRTC::FDModule::x86 {
namespace {

// Three planar rows in one block of scratch memory.
class PlanarRows {
 public:
  PlanarRows(int32_t width, int32_t channels)
      : planeWidth_(width + 2), rowLength_(static_cast<ptrdiff_t>(planeWidth_) * channels) {
    const size_t floats = 3 * static_cast<size_t>(rowLength_);
    memory_ = static_cast<float*>(alignedAlloc(floats * sizeof(float)));
    for (int i = 0; i < 3; ++i)
      rows_[i] = memory_ != nullptr ? memory_ + i * rowLength_ : nullptr;
    for (size_t i = 0; memory_ != nullptr && i < floats; ++i)
      memory_[i] = 0;
  }
  ~PlanarRows() { alignedFree(memory_); }
  PlanarRows(const PlanarRows&) = delete;
  PlanarRows& operator=(const PlanarRows&) = delete;

  bool isReady() const { return memory_ != nullptr; }
  float* row(int index) { return rows_[index]; }
  const float* plane(int index, int32_t channel) const {
    return rows_[index] + static_cast<ptrdiff_t>(channel) * planeWidth_;
  }
  int32_t planeWidth() const { return planeWidth_; }

  /// Moves the window down by `count` rows; the lowest `count` rows are then to be filled.
  void moveDown(int count) {
    for (; count > 0; --count) {
      float* dropped = rows_[0];
      rows_[0] = rows_[1];
      rows_[1] = rows_[2];
      rows_[2] = dropped;
    }
  }

 private:
  int32_t planeWidth_;
  ptrdiff_t rowLength_;
  float* memory_ = nullptr;
  float* rows_[3] = {};
};

// --- conv3x3bytes_16x4 ---

inline void convertRow(const ConvProblem& p, int32_t inputY, float* row) {
  const uint8_t* bytes = p.bytes + static_cast<ptrdiff_t>(inputY) * p.inputW * p.inputC;
  if (p.inputC == 3)
    bytesToFloatPlanes(bytes, row, p.inputW, p.byteMean, p.byteScale);
  else
    bytesToFloat(bytes, row + 1, p.inputW, p.byteMean, p.byteScale);
}

inline constexpr int bytesBlock = 16;

template <typename Vector, int bytesTile>
void computeBytesTile(const ConvProblem& p, const PlanarRows& rows, int32_t x, float* output) {
  using Step = Sums<Vector, bytesBlock, bytesTile>;
  const float* weights = p.weights;
  for (int32_t channel = 0; channel < p.outputC; channel += bytesBlock) {
    Step sums;
    sums.start(p.bias != nullptr ? p.bias + channel : nullptr);
    for (int ky = 0; ky < 3; ++ky) {
      for (int32_t i = 0; i < p.inputC; ++i, weights += 3 * bytesBlock) {
        const float* input = rows.plane(ky, i) + 2 * x;
        constexpr int order[] = {0, 2, 1};
        for (const int kx : order) {
          Vector weight[Step::vectors];
          for (int v = 0; v < Step::vectors; ++v)
            weight[v] = Vector::load(weights + kx * bytesBlock + v * Vector::lanes);
          unrolled<bytesTile>([&](int pixel) __attribute__((always_inline)) {
            const Vector value = Vector::broadcast(input + 2 * pixel + kx);
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
template <typename Vector, int tile, int shortTile = tile>
bool runBytes(const ConvProblem& p) {
  if constexpr (shortTile < tile)
    if (p.outputW < tile)
      return runBytes<Vector, shortTile>(p);
  PlanarRows rows(p.inputW, p.inputC);
  if (!rows.isReady())
    return false;
  for (int32_t y = 0; y < p.outputH; ++y) {
    rows.moveDown(2);
    convertRow(p, 2 * y, rows.row(1));
    convertRow(p, 2 * y + 1, rows.row(2));
    float* output = p.output + static_cast<ptrdiff_t>(y) * p.outputW * p.outputC;
    for (int32_t next = 0; next < p.outputW; next += tile) {
      const int32_t x = least(next, p.outputW - tile);
      computeBytesTile<Vector, tile>(p, rows, x, output + static_cast<ptrdiff_t>(x) * p.outputC);
    }
  }
  return true;
}

// Every window but those of the first row and column lies inside the picture.
inline bool servesBytes(const ConvProblem& p) {
  return is3x3(p) && p.bytes != nullptr && p.isStride(2, 2) && !p.isDilated() && p.padLeft == 1 &&
         p.padTop == 1 && (p.inputC == 1 || p.inputC == 3) && p.outputW >= 4 &&
         2 * p.outputW <= p.inputW && 2 * p.outputH <= p.inputH &&
         fillsBlocks(p.outputC, bytesBlock);
}

// --- conv3x3single_48 ---

inline constexpr int singleChannels = 3;
inline constexpr int singleTile = 48;

// The interleaved input row, or zeros for a row below the image.
inline void separateRow(const ConvProblem& p, int32_t inputY, float* row, int32_t planeWidth) {
  const float* input = p.input + static_cast<ptrdiff_t>(inputY) * p.inputW * singleChannels;
  const bool isInside = inputY < p.inputH;
  for (int32_t x = 0; x < p.inputW; ++x)
    for (int channel = 0; channel < singleChannels; ++channel)
      row[channel * planeWidth + x + 1] = isInside ? input[x * singleChannels + channel] : 0.0F;
}

template <typename Vector>
void computeSingleTile(const ConvProblem& p, const PlanarRows& rows, int32_t x, float* output) {
  constexpr int singleVectors = singleTile / Vector::lanes;
  Vector sum[singleVectors];
  for (Vector& lane : sum)
    lane = p.bias != nullptr ? Vector::broadcast(p.bias) : Vector::zero();
  const float* weights = p.weights;
  for (int ky = 0; ky < 3; ++ky) {
    for (int i = 0; i < singleChannels; ++i) {
      const float* input = rows.plane(ky, i) + x;
      for (int kx = 0; kx < 3; ++kx, ++weights) {
        const Vector weight = Vector::broadcast(weights);
        for (int v = 0; v < singleVectors; ++v)
          sum[v] = multiplyAdd(Vector::load(input + kx + v * Vector::lanes), weight, sum[v]);
      }
    }
  }
  withActivation<Vector>(p.activation, [&](auto function) {
    for (int v = 0; v < singleVectors; ++v)
      function(sum[v]).store(output + v * Vector::lanes);
  });
}

template <typename Vector>
bool runSingle(const ConvProblem& p) {
  PlanarRows rows(p.inputW, singleChannels);
  if (!rows.isReady())
    return false;
  separateRow(p, 0, rows.row(2), rows.planeWidth());
  for (int32_t y = 0; y < p.outputH; ++y) {
    rows.moveDown(1);
    separateRow(p, y + 1, rows.row(2), rows.planeWidth());
    float* output = p.output + static_cast<ptrdiff_t>(y) * p.outputW;
    for (int32_t next = 0; next < p.outputW; next += singleTile) {
      const int32_t x = least(next, p.outputW - singleTile);
      computeSingleTile<Vector>(p, rows, x, output + x);
    }
  }
  return true;
}

inline bool servesSingle(const ConvProblem& p) {
  return is3x3(p) && p.isStride(1, 1) && !p.isDilated() && p.padLeft == 1 && p.padTop == 1 &&
         p.inputC == singleChannels && p.outputC == 1 && p.outputW >= singleTile &&
         p.outputW <= p.inputW && p.outputH <= p.inputH;
}

}  // namespace
}  // namespace TavroRTC::FDModule::x86
