#pragma once

// The walk along the columns of a row that the plain forms share.

#include <cstdint>

namespace TavroRTC::FDModule {

/// Calls filter(i, index, fraction) for the positions x + i * dx. Positions are summed up in 64
/// bits: the sum behind the last one may need more than 32.
template <typename Filter>
void forEachColumn(int32_t dstWidth, int32_t x, int32_t dx, const Filter& filter) {
  int64_t position = x;
  for (int32_t i = 0; i < dstWidth; ++i, position += dx)
    filter(i, position >> 16, static_cast<int32_t>(position & 0xFFFF));
}

}  // namespace TavroRTC::FDModule
