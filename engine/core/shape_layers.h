#pragma once

// The layers that compute nothing: they join tensors, or lend one under another shape.

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

/// Changes the shape of a tensor without moving its data: the output borrows the input's buffers.
class Reshape : public virtual Layer {
 public:
  bool lendsInputs() const override { return true; }
  bool forward(RunEnv* env) override;
  bool reshape(RunEnv* env) override;

  int32_t target[4] = {1, 1, 1, 1};  ///< n, h, w, c; reshape fills in the one below 1, if any

 protected:
  Reshape(const LayerRow& row, TensorMap& tensors, TensorMap& weights);

 private:
  void shapeOutput();
};

}  // namespace TavroRTC::FDModule::core
