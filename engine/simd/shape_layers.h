#pragma once

#include "engine/core/shape_layers.h"

namespace TavroRTC::FDModule::simd {

class Concat : public core::Concat {
 public:
  Concat(const LayerRow& row, TensorMap& tensors, TensorMap& weights)
      : Layer(row), core::Concat(row, tensors, weights) {}

  bool forward(core::RunEnv* env) override;
};

}  // namespace TavroRTC::FDModule::simd
