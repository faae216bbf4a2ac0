#pragma once

// simd:: adds the forward pass on 128-bit vectors to the layers of core::. The Activation here is
// also what the layers before it look for: most activations never run by themselves, because the
// layer before applies them to its sums (takeFusedActivation).

#include "engine/conv_problem.h"
#include "engine/core/elementwise_layers.h"
#include "engine/core/gemm.h"
#include "engine/core/shape_layers.h"
#include "engine/core/windowed_layers.h"
#include "engine/run_env.h"

namespace TavroRTC::FDModule::simd {

// --- windowed_layers.cpp ---

/// A choice of kernel (conv_selection.h).
using KernelSelection = const ConvKernel* (*)(const ConvProblem& problem, const core::RunEnv& env);

/// What runs in a kernel's place: its own function, or one that computes the same bits.
using RunChoice = ConvRun* (*)(const ConvKernel& kernel);
inline ConvRun* runItself(const ConvKernel& kernel) {
  return kernel.run;
}

/// The kernel that `select` names for a layer; null if the tensors don't fit or there is none.
const ConvKernel* kernelOf(const core::Conv& layer, KernelSelection select,
                           const core::RunEnv& env);

/// Computes a convolution with the kernel that `select` names: takes the activation that it merges,
/// asks the tensors for their data in the layouts that it wants, which packs the weights on the
/// first frame, and runs it. False if the tensors don't fit, if data or memory is missing, or if
/// there is no kernel. A selected kernel's result is the result: no other one is tried after it, as
/// the weights would be packed for that one from then on.
bool forwardConv(core::Conv& layer, KernelSelection select, const core::RunEnv& env,
                 RunChoice choose = runItself);

class Conv : public core::Conv {
 public:
  Conv(const LayerRow& row, TensorMap& tensors, TensorMap& weights)
      : Layer(row), core::Conv(row, tensors, weights) {}

  bool forward(core::RunEnv* env) override;
};

class DepthwiseConv : public core::DepthwiseConv {
 public:
  DepthwiseConv(const LayerRow& row, TensorMap& tensors, TensorMap& weights)
      : Layer(row), core::DepthwiseConv(row, tensors, weights) {}

  bool forward(core::RunEnv* env) override;
};

class Pooling : public core::Pooling {
 public:
  Pooling(const LayerRow& row, TensorMap& tensors, TensorMap& weights)
      : Layer(row), core::Pooling(row, tensors, weights) {}

  bool forward(core::RunEnv* env) override;
};

// --- elementwise_layers.cpp ---

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

// --- shape_layers.cpp ---

class Concat : public core::Concat {
 public:
  Concat(const LayerRow& row, TensorMap& tensors, TensorMap& weights)
      : Layer(row), core::Concat(row, tensors, weights) {}

  bool forward(core::RunEnv* env) override;
};

// --- gemm.cpp ---

class Gemm : public core::Gemm {
 public:
  Gemm(const LayerRow& row, TensorMap& tensors, TensorMap& weights)
      : Layer(row), core::Gemm(row, tensors, weights) {}

  bool forward(core::RunEnv* env) override;
};

}  // namespace TavroRTC::FDModule::simd
