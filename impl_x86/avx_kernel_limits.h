#pragma once

// What the fused multiply-add kernels share in telling what they serve.

#include "engine/conv_problem.h"
#include "engine/weight_packing.h"

namespace TavroRTC::FDModule::x86 {
namespace {

inline bool wantsRelu(const ConvProblem& p) {
  return p.activation.kind == static_cast<int32_t>(core::ActivationKind::relu);
}

/// True if `channels` come in whole blocks, or in a single one that lacks at most 7 lanes.
constexpr bool fillsBlocks(int32_t channels, int32_t block) {
  return channels % block == 0 || (channels < block && channels > block - 8);
}

inline bool is3x3(const ConvProblem& p) {
  return p.group == 1 && p.isKernel(3, 3);
}

}  // namespace
}  // namespace TavroRTC::FDModule::x86
