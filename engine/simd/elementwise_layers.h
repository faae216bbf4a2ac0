#pragma once

// simd:: adds the forward pass on 128-bit vectors to the operators of core::. The Activation here
// is also what the layers before it look for: most activations never run by themselves, because the
// layer before applies them to its sums (takeFusedActivation).

#include "engine/conv_problem.h"
#include "engine/core/elementwise_layers.h"

namespace TavroRTC::FDModule::simd {

class Activation : public core::Activation {
 public:
  Activation(const LayerRow& row, TensorMap& tensors, TensorMap& weights)
      : Layer(row), core::Activation(row, tensors, weights) {}

  bool forward(core::RunEnv* env) override;
};

/// If an activation of one of `kinds` follows `layer` directly, marks it as done and returns its
/// parameters; the caller then applies it to its own results.
FusedActivation takeFusedActivation(const Layer& layer, ActivationKinds kinds);

class BinaryOp : public core::BinaryOp {
 public:
  BinaryOp(const LayerRow& row, TensorMap& tensors, TensorMap& weights)
      : Layer(row), core::BinaryOp(row, tensors, weights) {}

  bool forward(core::RunEnv* env) override;
};

class Softmax : public core::Softmax {
 public:
  Softmax(const LayerRow& row, TensorMap& tensors, TensorMap& weights)
      : Layer(row), core::Softmax(row, tensors, weights) {}

  bool forward(core::RunEnv* env) override;
};

}  // namespace TavroRTC::FDModule::simd
