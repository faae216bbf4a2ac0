#pragma once

#include <span>

#include "engine/core/conv.h"
#include "engine/run_env.h"

namespace TavroRTC::FDModule::simd {

/// Runs one kernel on a layer's tensors: takes the activation that the kernel merges, asks the
/// tensors for their data in the layouts that it wants (which packs the weights on the first frame)
/// and calls it. `problem` has the sizes. False if data is missing or the kernel declines.
bool runConvKernel(core::Conv& layer, const ConvKernel& kernel, ConvProblem problem);

/// One row of a kernel selection: a test and the kernel that is taken if it holds and the kernel
/// serves. Rows are tried from first to last.
struct ConvChoice {
  bool (*applies)(const ConvProblem& problem);
  const ConvKernel* withAvxAndFma;
  const ConvKernel* without = nullptr;
};

/// The first kernel that applies and serves, or null.
const ConvKernel* selectKernel(std::span<const ConvChoice> choices, const ConvProblem& problem,
                               bool avxAndFma);

/// The kernel that the 128-bit convolution takes for these sizes; never null for one group.
const ConvKernel* selectConvKernel(const ConvProblem& problem, const core::RunEnv& env);

class Conv : public core::Conv {
 public:
  Conv(const LayerRow& row, TensorMap& tensors, TensorMap& weights)
      : Layer(row), core::Conv(row, tensors, weights) {}

  bool forward(core::RunEnv* env) override;
};

}  // namespace TavroRTC::FDModule::simd
