#pragma once

// Which processor the tested code believes to run on. A program that links tavro_test_processor
// obeys the environment variable TAVRO_TEST_PROCESSOR from its start:
//
//   everything   what the processor has (the default)
//   no-avx-fma   the 128-bit kernels
//   no-f16c      half floats by plain code
//   neither      both
//
// so that any test runs on any of the paths; with any other value it doesn't start. Within a test a
// Processor does the same for a while. The module itself reads no environment.

#include <vector>

#include "engine/cpu_info.h"

namespace tavro::test {

/// Imitates a processor for its lifetime: one with AVX and FMA, whether they are there or not, or
/// one with neither, or any. They may be nested.
class Processor {
 public:
  explicit Processor(bool avxAndFma);
  explicit Processor(const TavroRTC::FDModule::CpuInfo& info);
  ~Processor();
  Processor(const Processor&) = delete;
  Processor& operator=(const Processor&) = delete;

 private:
  TavroRTC::FDModule::CpuInfo info_;
  const TavroRTC::FDModule::CpuInfo* before_;
};

/// What code can run on here, by whether it has AVX and FMA: {false}, or {true, false}.
std::vector<bool> availableProcessors();

}  // namespace tavro::test
