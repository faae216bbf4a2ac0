#pragma once

#include "engine/conv_problem.h"
#include "engine/layer.h"

namespace TavroRTC::FDModule::core {

/// A function of each value by itself. The output has the input's shape.
class Activation : public virtual Layer {
 public:
  bool reshape(RunEnv* env) override;

  int32_t kind = 0;          ///< an ActivationKind, or the identity
  float clipMax = 0;         ///< upper bound of clippedRelu
  float leakSlope = 0;       ///< slope of leakyRelu below zero
  Tensor* slopes = nullptr;  ///< one slope for each channel, of prelu; may be missing

 protected:
  Activation(const LayerRow& row, TensorMap& tensors, TensorMap& weights);

 private:
  void connect(const LayerRow& row, TensorMap& tensors);
};

}  // namespace TavroRTC::FDModule::core
