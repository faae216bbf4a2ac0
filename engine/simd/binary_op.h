#pragma once

#include "engine/core/binary_op.h"

namespace TavroRTC::FDModule::simd {

class BinaryOp : public core::BinaryOp {
 public:
  BinaryOp(const LayerRow& row, TensorMap& tensors, TensorMap& weights)
      : Layer(row), core::BinaryOp(row, tensors, weights) {}

  bool forward(core::RunEnv* env) override;
};

}  // namespace TavroRTC::FDModule::simd
