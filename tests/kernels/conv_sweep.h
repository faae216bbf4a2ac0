#pragma once

// Runs one convolution kernel over random geometry that it says it serves, and over contents at the
// edges of the number range, on memory with guard pages, against the two references of
// conv_reference.h.

#include <gtest/gtest.h>

#include <cstdint>

#include "tests/kernels/swept_kernels.h"

namespace tavro::test {

testing::AssertionResult sweepKernel(const SweptKernel& swept, int32_t count);

}  // namespace tavro::test
