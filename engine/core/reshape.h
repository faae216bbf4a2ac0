#pragma once

#include "engine/layer.h"

namespace TavroRTC::FDModule::core {

/// Gives a tensor another shape without moving its data: the output borrows the input's buffers.
class Reshape : public virtual Layer {
 public:
  bool forward(RunEnv* env) override;
  bool reshape(RunEnv* env) override;

  int32_t target[4] = {1, 1, 1, 1};  ///< n, h, w, c; reshape fills in the one below 1, if any

 protected:
  Reshape(const LayerRow& row, TensorMap& tensors, TensorMap& weights);

 private:
  void shapeOutput();
};

}  // namespace TavroRTC::FDModule::core
