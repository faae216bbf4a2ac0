#pragma once

#include "engine/layer.h"

namespace TavroRTC::FDModule::core {

/// Turns each pixel's channels into probabilities that add up to 1.
class Softmax : public virtual Layer {
 public:
  bool reshape(RunEnv* env) override;

 protected:
  Softmax(const LayerRow& row, TensorMap& tensors, TensorMap& weights);
};

}  // namespace TavroRTC::FDModule::core
