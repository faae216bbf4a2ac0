#pragma once

// The 128-bit kernels, fifteen in all. Their names show the block of output channels and the tile
// of output pixels that one step computes. Every term of a sum is one rounded multiply and one
// rounded add, in this order after the bias: ky, kx, input channel; where a kernel differs, its
// file says so.
//
//   sse_tap_kernels.cpp            1x1, Direct, Dilated, group: broadcast a pixel's value, times a
//                                  vector of weights
//   sse_depthwise_kernels.cpp      one filter a channel: vector times vector
//   sse_first_layer_kernels.cpp    3x3, stride 2, one or three channels, of floats or bytes
//   sse_scalar_kernels.cpp         one output channel; and plain loops that take everything

#include <cstring>

#include "engine/aligned_memory.h"
#include "engine/conv_problem.h"

namespace TavroRTC::FDModule::simd {

extern const ConvKernel convSse1x1_8x4;
extern const ConvKernel convSse1x1_4x4;
extern const ConvKernel convSseDirect_8x4;
extern const ConvKernel convSseDirect_4x4;
extern const ConvKernel convSseDilated_8x4;
extern const ConvKernel convSseDilated_4x4;
extern const ConvKernel convSse3x3s2c3_4x4;
extern const ConvKernel convSse3x3s2c1_4x4;
extern const ConvKernel convSseSingle;
extern const ConvKernel convSseScalar;

extern const ConvKernel dwConvSse_8x4;
extern const ConvKernel dwConvSse_4x4;
extern const ConvKernel dwConvSseScalar;
extern const ConvKernel groupConvSse_8x4;
extern const ConvKernel groupConvSse_4x4;

/// A copy of the bias, zeros if there is none, with zeros behind up to a whole number of blocks.
/// Empty if there is no memory.
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
