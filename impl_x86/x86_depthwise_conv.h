#pragma once

#include "engine/simd/depthwise_conv.h"

namespace TavroRTC::FDModule::x86 {

/// The 256-bit kernel for these sizes, or null if there is none or the processor lacks AVX or FMA.
const ConvKernel* selectDepthwiseFma(const ConvProblem& problem);

class DepthwiseConv : public simd::DepthwiseConv {
 public:
  DepthwiseConv(const LayerRow& row, TensorMap& tensors, TensorMap& weights)
      : Layer(row), simd::DepthwiseConv(row, tensors, weights) {}

  bool forward(core::RunEnv* env) override;

 private:
  /// Computes the output with a 256-bit kernel. False if none takes this layer.
  bool tryDepthwiseFma();
};

}  // namespace TavroRTC::FDModule::x86
