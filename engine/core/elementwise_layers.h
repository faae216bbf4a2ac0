#pragma once

// The layers that compute each output value from the input values at its own place, or from those
// of its own pixel.

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

/// Turns each pixel's channels into probabilities that add up to 1.
class Softmax : public virtual Layer {
 public:
  bool reshape(RunEnv* env) override;

 protected:
  Softmax(const LayerRow& row, TensorMap& tensors, TensorMap& weights);
};

}  // namespace TavroRTC::FDModule::core
