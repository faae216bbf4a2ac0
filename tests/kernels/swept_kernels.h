#pragma once

// The table of all convolution kernels as the sweep needs them: what leads random geometry to a
// kernel, and in what order it takes the terms of a sum. A new kernel is one more row.

#include <cstdint>
#include <span>

#include "engine/conv_problem.h"
#include "tests/kernels/conv_reference.h"
#include "tests/support/random.h"

namespace tavro::test {

/// Leads broad random geometry towards what a kernel is made for. Each trait is left to chance now
/// and then, so that geometry just outside of a kernel's limits comes up as well: there it must not
// serve, or be right.
class Lead {
 public:
  Lead(ConvProblem& problem, Random& random) : p(problem), random_(random) {}

  void set(int32_t& field, int32_t value) {
    if (random_.chance(0.88))
      field = value;
  }
  int32_t between(int32_t first, int32_t last) { return random_.between(first, last); }

  void kernel(int32_t size) {
    set(p.kernelH, size);
    set(p.kernelW, size);
  }
  void strides(int32_t size) {
    set(p.strideH, size);
    set(p.strideW, size);
  }
  void noPadding() {
    for (int32_t* padding : {&p.padLeft, &p.padRight, &p.padTop, &p.padBottom})
      set(*padding, 0);
  }
  /// Whole blocks of output channels, or a short one.
  void blocks(int32_t block) {
    set(p.outputC, between(0, 1) != 0 ? block * between(1, 2) : block - between(1, 7));
  }

  ConvProblem& p;

 private:
  Random& random_;
};

enum class Needs : uint8_t { nothing, avxAndFma };

struct SweptKernel {
  const TavroRTC::FDModule::ConvKernel* kernel;
  void (*lead)(Lead& lead);
  Rule rule;
  Needs needs = Needs::nothing;
};

std::span<const SweptKernel> sweptKernels();

}  // namespace tavro::test
