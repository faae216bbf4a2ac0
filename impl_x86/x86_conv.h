#pragma once

#include "engine/simd/conv.h"

namespace TavroRTC::FDModule::x86 {

/// The 256-bit kernel for these sizes, or null if there is none or the processor lacks AVX or FMA.
/// `problem.bytes` tells whether the input is a picture of bytes.
const ConvKernel* selectConvFma(const ConvProblem& problem);

class Conv : public simd::Conv {
 public:
  Conv(const LayerRow& row, TensorMap& tensors, TensorMap& weights)
      : Layer(row), simd::Conv(row, tensors, weights) {}

  bool forward(core::RunEnv* env) override;

 private:
  /// Computes the output with a 256-bit kernel. False if none takes this layer.
  bool tryConvFma();
};

}  // namespace TavroRTC::FDModule::x86
