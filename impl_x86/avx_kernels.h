#pragma once

// The fused multiply-add kernels: twelve for dense convolutions, two for depthwise ones. A name
// ends in the block of output channels and the tile of output pixels that one step computes. They
// come in five families, templates over the vector that a header each has:
//
//   pixel_list.h         1x1: the image is a list of pixels
//   edge_lanes.h         3x3, one tap of padding: a tap outside is a zero vector
//   border_zones.h       3x3, any padding: border columns go by themselves
//   rolling_rows.h       3x3 on three planar, zero-bordered rows; reads pictures
//   depthwise_columns.h  3x3, one filter a channel
//
// Wider instances of the same templates are their twins (twins.h).

#include "engine/conv_problem.h"
#include "engine/weight_packing.h"

namespace TavroRTC::FDModule::x86 {

extern const ConvKernel conv1x1_32x3;
extern const ConvKernel conv1x1_24x3;
extern const ConvKernel conv1x1_16x4;
extern const ConvKernel conv3x3s1_16x4;
extern const ConvKernel conv3x3s2_16x4;
extern const ConvKernel conv3x3s1_24x3;
extern const ConvKernel conv3x3s1_4x6;
extern const ConvKernel conv3x3s2d2_4x6;
extern const ConvKernel conv3x3dil_16x4;
extern const ConvKernel conv3x3any_4x6;
extern const ConvKernel conv3x3bytes_16x4;
extern const ConvKernel conv3x3single_48;

extern const ConvKernel dwConv3x3_16x4;
extern const ConvKernel dwConv3x3s1_16x5;

// What they share in telling what they serve; internal to each file (see engine/simd/vectors.h).
namespace {

/// True if `channels` come in whole blocks, or in a single one that lacks at most 7 lanes.
constexpr bool fillsBlocks(int32_t channels, int32_t block) {
  return channels % block == 0 || (channels < block && channels > block - 8);
}

inline bool is3x3(const ConvProblem& p) {
  return p.group == 1 && p.isKernel(3, 3);
}

}  // namespace

}  // namespace TavroRTC::FDModule::x86
