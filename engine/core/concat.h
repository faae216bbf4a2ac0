#pragma once

#include "engine/layer.h"

namespace TavroRTC::FDModule::core {

/// Joins tensors of one height and width along the channels.
class Concat : public virtual Layer {
 public:
  bool isPointwise() const override { return true; }
  bool reshape(RunEnv* env) override;

 protected:
  Concat(const LayerRow& row, TensorMap& tensors, TensorMap& weights);
};

}  // namespace TavroRTC::FDModule::core
