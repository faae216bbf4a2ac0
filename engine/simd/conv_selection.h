#pragma once

// Which kernel a convolution takes. There is one rule: the tables of kernels are read from the best
// level to the plainest, each from its first row to its last, and the first row that applies and
// whose kernel serves the sizes is taken. impl_x86/x86_conv.h puts its levels before these.

#include <span>

#include "engine/conv_problem.h"
#include "engine/run_env.h"

namespace TavroRTC::FDModule::simd {

/// One row: when the kernel is wanted. Which sizes it can do, the kernel knows itself.
struct ConvChoice {
  bool (*applies)(const ConvProblem& problem);
  const ConvKernel* kernel;
};

/// One table, and when its kernels may run.
struct ConvLevel {
  bool (*isAvailable)(const core::RunEnv& env);
  std::span<const ConvChoice> choices;
};

/// The kernel of the first row that applies and serves, or null.
const ConvKernel* selectKernel(std::span<const ConvLevel> levels, const ConvProblem& problem,
                               const core::RunEnv& env);

/// The kernel that a dense convolution takes among the 128-bit ones; never null.
const ConvKernel* selectConvKernel(const ConvProblem& problem, const core::RunEnv& env);

/// The same for a grouped one; null if there is none for this number of groups.
const ConvKernel* selectDepthwiseKernel(const ConvProblem& problem, const core::RunEnv& env);

}  // namespace TavroRTC::FDModule::simd
