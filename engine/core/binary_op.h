#pragma once

#include "engine/layer.h"

namespace TavroRTC::FDModule::core {

enum class BinaryOperation : int32_t { add = 0, multiply = 2 };

/// Two tensors, value by value, with the smaller one repeated where the shapes differ.
class BinaryOp : public virtual Layer {
 public:
  bool isPointwise() const override { return true; }
  bool reshape(RunEnv* env) override;

  int32_t op = 0;  ///< a BinaryOperation

 protected:
  BinaryOp(const LayerRow& row, TensorMap& tensors, TensorMap& weights);
};

}  // namespace TavroRTC::FDModule::core
