#pragma once

#include <cstdint>
#include <limits>

namespace TavroRTC::FDModule {

/// Truncates a coordinate toward zero. Values outside int32, infinities included, become the
/// nearest int32 and NaN becomes 0, so that any output of the network makes a rectangle.
inline int32_t truncateToInt32(float value) {
  constexpr float limit = 2147483648.0F;  // 2^31, the first value that is too large
  if (value >= limit)
    return std::numeric_limits<int32_t>::max();
  if (value >= -limit)
    return static_cast<int32_t>(value);
  return value < -limit ? std::numeric_limits<int32_t>::min() : 0;
}

}  // namespace TavroRTC::FDModule
