#pragma once

// simd:: adds the forward pass on 128-bit vectors to the operators of core::. This file's
// Activation is also what the layers before it look for: most activations never run by themselves,
// because the layer before applies them to its sums (takeFusedActivation).

#include "engine/conv_problem.h"
#include "engine/core/activation.h"

namespace TavroRTC::FDModule::simd {

class Activation : public core::Activation {
 public:
  Activation(const LayerRow& row, TensorMap& tensors, TensorMap& weights)
      : Layer(row), core::Activation(row, tensors, weights) {}

  bool forward(core::RunEnv* env) override;
};

/// If an activation of one of `kinds` follows `layer` directly, marks it as done and gives its
/// parameters; the caller then applies it to its own results.
FusedActivation takeFusedActivation(const Layer& layer, ActivationKinds kinds);

}  // namespace TavroRTC::FDModule::simd
