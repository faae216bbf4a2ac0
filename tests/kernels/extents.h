#pragma once

// The shape of a tensor, and those of a convolution's operands.

#include <cstddef>
#include <cstdint>

#include "engine/conv_problem.h"

namespace tavro::test {

/// n, h, w, c.
struct Extents {
  int32_t n = 1;
  int32_t h = 1;
  int32_t w = 1;
  int32_t c = 1;

  size_t count() const {
    return static_cast<size_t>(n) * static_cast<size_t>(h) * static_cast<size_t>(w) *
           static_cast<size_t>(c);
  }
};

inline Extents inputExtents(const TavroRTC::FDModule::ConvProblem& p) {
  return {1, p.inputH, p.inputW, p.inputC};
}
inline Extents outputExtents(const TavroRTC::FDModule::ConvProblem& p) {
  return {1, p.outputH, p.outputW, p.outputC};
}
inline Extents weightExtents(const TavroRTC::FDModule::ConvProblem& p) {
  return {p.outputC, p.kernelH, p.kernelW, p.inputC / p.group};
}

}  // namespace tavro::test
