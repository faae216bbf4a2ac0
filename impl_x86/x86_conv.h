#pragma once

#include "engine/simd/layers.h"
#include "impl_x86/twins.h"

namespace TavroRTC::FDModule::x86 {

/// The kernels for these sizes: the levels of this kind of machine, then those of simd::.
/// `problem.bytes` tells whether the input is a picture of bytes.
const ConvKernel* selectConvKernel(const ConvProblem& problem, const core::RunEnv& env);
const ConvKernel* selectDepthwiseKernel(const ConvProblem& problem, const core::RunEnv& env);

class Conv : public simd::Conv {
 public:
  Conv(const LayerRow& row, TensorMap& tensors, TensorMap& weights)
      : Layer(row), simd::Conv(row, tensors, weights) {}

  bool forward(core::RunEnv* env) override {
    return simd::forwardConv(*this, selectConvKernel, *env, widestRun);
  }
  std::string describeKernel(const core::RunEnv& env) const override {
    return nameOfRun(simd::kernelOf(*this, selectConvKernel, env));
  }
};

class DepthwiseConv : public simd::DepthwiseConv {
 public:
  DepthwiseConv(const LayerRow& row, TensorMap& tensors, TensorMap& weights)
      : Layer(row), simd::DepthwiseConv(row, tensors, weights) {}

  bool forward(core::RunEnv* env) override {
    return simd::forwardConv(*this, selectDepthwiseKernel, *env, widestRun);
  }
  std::string describeKernel(const core::RunEnv& env) const override {
    return nameOfRun(simd::kernelOf(*this, selectDepthwiseKernel, env));
  }
};

}  // namespace TavroRTC::FDModule::x86
