#pragma once

// The sizes of a convolution: drawn at random, with the output's derived, as the shapes of its
// operands, and printed.

#include <cstddef>
#include <cstdint>
#include <ostream>

#include "engine/conv_problem.h"
#include "tests/support/random.h"

namespace TavroRTC::FDModule {

std::ostream& operator<<(std::ostream& out, const ConvProblem& p);

}  // namespace TavroRTC::FDModule

namespace tavro::test {

using TavroRTC::FDModule::ConvProblem;

/// Anything that makes sense, without the output's size; most of it no kernel but the general ones
/// serves.
ConvProblem drawGeometry(Random& random);

/// Sets the output's height and width from the input and the window; false if nothing fits. A
/// window that lacks less than a stride fits once if it may hang over the image's end.
enum class Overhang : uint8_t { none, allowed };
bool deriveOutputSize(ConvProblem& p, Overhang overhang = Overhang::none);

/// Terms of the whole output, the ones in the padding included.
int64_t termCount(const ConvProblem& p);

/// The shape of a tensor: n, h, w, c.
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

inline Extents inputExtents(const ConvProblem& p) {
  return {1, p.inputH, p.inputW, p.inputC};
}
inline Extents outputExtents(const ConvProblem& p) {
  return {1, p.outputH, p.outputW, p.outputC};
}
inline Extents weightExtents(const ConvProblem& p) {
  return {p.outputC, p.kernelH, p.kernelW, p.inputC / p.group};
}

}  // namespace tavro::test
