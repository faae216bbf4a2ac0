#pragma once

#include "engine/core/depthwise_conv.h"
#include "engine/run_env.h"

namespace TavroRTC::FDModule::simd {

/// The kernel that the 128-bit grouped convolution takes for these sizes, or null if there is none
/// for this number of groups.
const ConvKernel* selectDepthwiseKernel(const ConvProblem& problem, const core::RunEnv& env);

class DepthwiseConv : public core::DepthwiseConv {
 public:
  DepthwiseConv(const LayerRow& row, TensorMap& tensors, TensorMap& weights)
      : Layer(row), core::DepthwiseConv(row, tensors, weights) {}

  bool forward(core::RunEnv* env) override;
};

}  // namespace TavroRTC::FDModule::simd
