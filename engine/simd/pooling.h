#pragma once

#include "engine/core/pooling.h"

namespace TavroRTC::FDModule::simd {

class Pooling : public core::Pooling {
 public:
  Pooling(const LayerRow& row, TensorMap& tensors, TensorMap& weights)
      : Layer(row), core::Pooling(row, tensors, weights) {}

  bool forward(core::RunEnv* env) override;
};

}  // namespace TavroRTC::FDModule::simd
