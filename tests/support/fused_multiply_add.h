#pragma once

// a * b + c with one rounding, as the processor's instruction computes it. Some C libraries round
// twice in fmaf(), that of Windows among them.

#include <bit>
#include <cmath>
#include <cstdint>

namespace tavro::test {

/// The product is exact in double precision. The sum is rounded to odd there: to the neighbour with
/// the odd last bit unless it is exact, so that no tie arises when it is then rounded to single
/// precision (Boldo, Melquiond: Emulation of FMA and correctly rounded sums, 2008).
inline float fusedMultiplyAdd(float a, float b, float c) {
  const double product = double{a} * double{b};
  const double sum = product + double{c};
  const double addend = sum - product;
  const double error = (product - (sum - addend)) + (double{c} - addend);
  const auto bits = std::bit_cast<uint64_t>(sum);
  if (!std::isfinite(sum) || error == 0 || (bits & 1) != 0)
    return static_cast<float>(sum);
  const uint64_t odd = (error > 0) == (sum > 0) ? bits + 1 : bits - 1;
  return static_cast<float>(std::bit_cast<double>(odd));
}

}  // namespace tavro::test
