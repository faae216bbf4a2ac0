#pragma once

// Twins: a twin computes the sums of a kernel in the same order with wider registers. Its result is
// the same bit for bit, from the same packed weights and for the same sizes, so a twin is nothing
// but another function to run. The selection doesn't know of twins: it picks a kernel, and then the
// kernel's widest twin that the processor can run takes its place.
//
// The twins are in impl_x86/twins/; without that folder (CMake: TAVRO_TWINS=OFF) there are none.

#include <cstdint>
#include <span>
#include <string>

#include "engine/conv_problem.h"

namespace TavroRTC::FDModule::x86 {

struct Twin {
  const ConvKernel* kernel;
  int32_t bits;           ///< of its registers
  bool (*isAvailable)();  ///< whether the processor has the instructions, and the system saves
                          ///< the registers
  ConvRun* run;
};

// The twins' functions, in impl_x86/twins/: a kernel's name with the width of the registers.

// avx_tap_twins.cpp
ConvRun convSse1x1_4x4_256;

// avx512_twins.cpp
ConvRun conv1x1_32x3_512;
ConvRun conv1x1_16x4_512;
ConvRun conv3x3s1_16x4_512;
ConvRun conv3x3dil_16x4_512;
ConvRun conv3x3bytes_16x4_512;
ConvRun dwConv3x3_16x4_512;  // of both depthwise kernels

/// All twins; those of one kernel stand together, the widest first.
std::span<const Twin> twins();

/// What to run for a kernel: its widest twin that is available, or the kernel itself.
ConvRun* widestRun(const ConvKernel& kernel);

/// What widestRun chooses, in words: "conv1x1_32x3", or "conv1x1_32x3 on 512 bits" for a twin.
/// Empty for null.
std::string nameOfRun(const ConvKernel* kernel);

/// The widest registers that any kernel or twin uses on this processor: 512, 256 or 128.
int32_t registerBits();

/// From now on only twins of at most so many bits run; 512 at first, and 0 turns all of them off.
/// For tests and benches: it changes nothing but time.
void limitTwins(int32_t bits);

}  // namespace TavroRTC::FDModule::x86
