#pragma once

#include "engine/core/softmax.h"

namespace TavroRTC::FDModule::simd {

class Softmax : public core::Softmax {
 public:
  Softmax(const LayerRow& row, TensorMap& tensors, TensorMap& weights)
      : Layer(row), core::Softmax(row, tensors, weights) {}

  bool forward(core::RunEnv* env) override;
};

}  // namespace TavroRTC::FDModule::simd
