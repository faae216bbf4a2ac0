#pragma once

// SseBlock: the accumulators of one step of a 128-bit kernel, `tile` output pixels of `block`
// channels each. And the bias as such a kernel reads it.

#include <cstring>

#include "engine/aligned_memory.h"
#include "engine/simd/float4.h"

namespace TavroRTC::FDModule::simd {

template <int block, int tile>
struct SseBlock {
  static constexpr int vectors = block / Float4::lanes;

  Float4 sum[tile][vectors];

  /// All pixels start from the bias of the block's channels; null is zero.
  void start(const float* bias) {
    for (int v = 0; v < vectors; ++v) {
      const Float4 first =
          bias != nullptr ? Float4::load(bias + v * Float4::lanes) : Float4::zero();
      for (int pixel = 0; pixel < tile; ++pixel)
        sum[pixel][v] = first;
    }
  }

  /// Stores pixel by pixel in rising order: lanes that a short block has too many fall on the pixel
  /// behind and are written over by it.
  void store(float* output, ptrdiff_t pixelStride, const FusedActivation& activation) const {
    withActivation(activation, [&](auto function) {
      for (int pixel = 0; pixel < tile; ++pixel)
        for (int v = 0; v < vectors; ++v)
          function(sum[pixel][v]).store(output + pixel * pixelStride + v * Float4::lanes);
    });
  }
};

/// A copy of the bias, zeros if there is none, with zeros behind up to a whole number of blocks.
inline AlignedBuffer<float> paddedBias(const ConvProblem& p, int32_t block) {
  const auto channels = static_cast<size_t>(p.outputC);
  const auto size = static_cast<size_t>(block);
  const size_t padded = (channels + size - 1) / size * size;
  auto copy = allocateAligned<float>(padded);
  if (copy == nullptr)
    return copy;
  std::memset(copy.get(), 0, padded * sizeof(float));
  if (p.bias != nullptr)
    std::memcpy(copy.get(), p.bias, channels * sizeof(float));
  return copy;
}

}  // namespace TavroRTC::FDModule::simd
