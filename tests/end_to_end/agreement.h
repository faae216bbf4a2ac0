#pragma once

// The comparison of a network's float outputs with the reference network's readings.

#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <span>
#include <string>

#include "tests/end_to_end/reference_network.h"

namespace tavro::test {

/// How many of the reference's deviations a float evaluation may stray. Pictures with texture stay
/// within 3. In one of a single colour all pixels make the same errors, which don't average out as
/// the deviation supposes: up to 7.3 were seen. A single weight that is off by 1% shows as 40 to
/// 2000 in nine cases out of ten, and a wrong tap or lane as far more.
inline constexpr double allowedDeviations = 24;

/// Expects every value within the allowed deviations, and within `relativeError` of the value's
/// size beyond that, for a network whose own exponential is no better.
inline void expectAgreement(const std::string& what, const float* actual,
                            std::span<const Reading> expected, double relativeError = 0) {
  size_t failures = 0;
  size_t worst = 0;
  double worstRatio = 0;
  for (size_t i = 0; i < expected.size(); ++i) {
    const auto& [value, deviation] = expected[i];
    const double allowed = allowedDeviations * deviation + relativeError * std::fabs(value);
    const double ratio = std::fabs(actual[i] - value) / allowed;
    failures += ratio <= 1 ? 0U : 1U;  // not a number fails as well
    if (!(ratio <= worstRatio)) {
      worst = i;
      worstRatio = ratio;
    }
  }
  EXPECT_EQ(failures, 0U) << "of " << expected.size() << " values of " << what << "; the worst, ["
                          << worst << "], is " << actual[worst] << " for " << expected[worst].value
                          << ", " << worstRatio << " times what is allowed";
}

}  // namespace tavro::test
