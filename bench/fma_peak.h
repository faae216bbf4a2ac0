#pragma once

// The arithmetic peak of the core: what it does when it has nothing to do but fused multiply-adds
// on 256-bit registers. Kernels are judged by their share of it.

#include <cstdint>

namespace tavro::bench {

/// Operations of one step: a multiplication and an addition on 8 lanes of 12 accumulators. Twelve
/// are more than latency times throughput of the units of today's processors (4 x 2 to 5 x 2), so
/// no step waits for the one before.
inline constexpr double fmaOperationsPerStep = 2.0 * 8 * 12;

/// Operations that a core with two 256-bit units does in a cycle. It turns a measured peak into the
/// core's frequency.
inline constexpr double fmaOperationsPerCycle = 2.0 * 8 * 2;

/// Does that many steps. The processor must have AVX and FMA. The result means nothing; use it, so
/// that the compiler can't leave the work out.
float fmaSteps(int64_t steps);

/// The same on 512-bit registers, for processors with AVX-512, which some peers and our twins use:
/// twice the operations a step.
float fmaSteps512(int64_t steps);

}  // namespace tavro::bench
