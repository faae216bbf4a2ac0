#pragma once

// The sizes of a convolution, drawn at random, and the reference for its kernels, which shares no
// code with them: it takes the terms in a kernel's own order and rounding, one float at a time, and
// the kernel must match it bit for bit.

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <vector>

#include "engine/conv_problem.h"
#include "tests/support/random.h"

namespace TavroRTC::FDModule {

std::ostream& operator<<(std::ostream& out, const ConvProblem& p);

}  // namespace TavroRTC::FDModule

namespace tavro::test {

// --- Sizes ---

using TavroRTC::FDModule::ConvProblem;
using TavroRTC::FDModule::FusedActivation;

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
inline Extents weightExtents(const ConvProblem& p) {
  return {p.outputC, p.kernelH, p.kernelW, p.inputC / p.group};
}

// --- The reference ---

/// The operands in plain order: input h, w, c; weights output channel, ky, kx, input channel of the
/// group; bias null for zeros.
struct ConvOperands {
  const float* input = nullptr;
  const float* weights = nullptr;
  const float* bias = nullptr;
};

/// The activations that a kernel merges. Any other kind is the identity.
float activateInFloat(float x, const FusedActivation& activation);

/// The order of the terms within one kernel row.
enum class Sequence : uint8_t {
  tapsThenChannels,  ///< for each kx: the input channels
  channelsThenTaps,  ///< for each input channel: kx 0, 1, 2...
  outerTapsFirst,    ///< kx 0 and kx 2 in turn for each channel, then kx 1 for each channel
  middleTapLast,     ///< for each input channel: kx 0, 2, 1
};
enum class Arithmetic : uint8_t { separate, fused };
/// What becomes of a tap in the padding: no term at all, or a term with the input value 0, which
/// counts where the weight is infinite or the sum is -0.
enum class Outside : uint8_t { noTerm, zeroTerm };

/// How a kernel sums up the value of an output pixel.
struct SumRule {
  Sequence sequence = Sequence::tapsThenChannels;
  Arithmetic arithmetic = Arithmetic::separate;
  Outside rows = Outside::noTerm;
  Outside columns = Outside::noTerm;
  /// Whole groups of four terms of a kernel row go to four sums of their own, added at the end.
  bool inLanes = false;
};

/// How it sums up the values of column x.
using Rule = SumRule (*)(const ConvProblem& p, int32_t x);

/// The whole output, h, w, c.
std::vector<float> convolveInOrder(const ConvProblem& p, const ConvOperands& operands, Rule rule);

/// True if `x` is in the part of a row that a kernel with border zones computes in whole tiles.
bool isInTileZone(const ConvProblem& p, int32_t x, int32_t tile);

}  // namespace tavro::test
