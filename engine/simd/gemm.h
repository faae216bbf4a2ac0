#pragma once

#include "engine/core/gemm.h"

namespace TavroRTC::FDModule::simd {

class Gemm : public core::Gemm {
 public:
  Gemm(const LayerRow& row, TensorMap& tensors, TensorMap& weights)
      : Layer(row), core::Gemm(row, tensors, weights) {}

  bool forward(core::RunEnv* env) override;
};

}  // namespace TavroRTC::FDModule::simd
