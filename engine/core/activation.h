#pragma once

#include "engine/layer.h"

namespace TavroRTC::FDModule::core {

/// The functions an activation layer can apply; any other code is the identity.
enum class ActivationKind : int32_t {
  relu = 1,         ///< max(0, x)
  clippedRelu = 2,  ///< max(0, min(clipMax, x))
  prelu = 3,        ///< x, times the channel's slope below zero
  tanh = 4,
  sigmoid = 5,    ///< 1 / (exp(-x) + 1)
  leakyRelu = 6,  ///< min(x, 0) * leakSlope + max(x, 0)
};

/// A function of each value by itself. The output has the input's shape.
class Activation : public virtual Layer {
 public:
  bool reshape(RunEnv* env) override;

  int32_t kind = 0;          ///< an ActivationKind
  float clipMax = 0;         ///< upper bound of clippedRelu
  float leakSlope = 0;       ///< slope of leakyRelu below zero
  Tensor* slopes = nullptr;  ///< one slope for each channel, of prelu; may be missing

 protected:
  Activation(const LayerRow& row, TensorMap& tensors, TensorMap& weights);

 private:
  void connect(const LayerRow& row, TensorMap& tensors);
};

}  // namespace TavroRTC::FDModule::core
