#pragma once

// The layout codes: in which order the elements of a tensor lie in memory, and how weights get from
// a plain order into the blocked order that a kernel's inner loop wants. A blocked order groups
// `blockSize` neighbouring output channels into the lanes of vectors. When the channels don't fill
// the last block, that block is moved back to end at the last channel, so that it repeats channels
// of the block before and holds only real weights; only a lone short block is filled up with zeros.

#include <cstdint>
#include <optional>

namespace TavroRTC::FDModule {

/// n, h, w, c of a tensor. Of a weight: output channels, kernel height, kernel width, input
/// channels.
struct TensorExtents {
  int32_t n = 0;
  int32_t h = 0;
  int32_t w = 0;
  int32_t c = 0;
};

/// The codes that code names; weight_packing.cpp has the table of all of them. Codes behind the
/// table's end mean plain channelsLast order, and negative ones mean nothing.
namespace layout {
inline constexpr int32_t channelsLast = 0;   ///< n, h, w, c: every activation and bias
inline constexpr int32_t channelsFirst = 1;  ///< n, c, h, w: the stored weights
inline constexpr int32_t block32 = 2;        ///< blocks of 32 output channels: h, w, c, 32 lanes
inline constexpr int32_t block24 = 3;
inline constexpr int32_t block16 = 4;
inline constexpr int32_t block8 = 5;
inline constexpr int32_t block4 = 6;
inline constexpr int32_t block16TapsInner =
    10;  ///< blocks of 16 output channels: h, c, w, 16 lanes
inline constexpr int32_t channelTapsInner = 15;  ///< n, h, c, w
inline constexpr int32_t allLanes = 20;          ///< h, w, c, then all n as lanes
}  // namespace layout

/// How many output channels `layoutCode` groups, which decides how far the buffer exceeds the
/// elements: `n` is padded to a multiple of it. 1 for the codes that exist for whole blocks only.
int32_t layoutBlockSize(int32_t layoutCode, int32_t n);

/// The number of elements of a tensor in `layoutCode`, the repeated or zero lanes included. None if
/// an extent or the code is negative or the number doesn't fit.
std::optional<uint64_t> packedElementCount(const TensorExtents& extents, int32_t layoutCode);

/// Fills `dst`, of packedElementCount elements, with the elements of `src`, which stand in
/// `sourceCode` (channelsLast or channelsFirst). Does nothing if there is no such count or the
/// source is in any other order.
void packWeights(const float* src, float* dst, const TensorExtents& extents, int32_t sourceCode,
                 int32_t layoutCode);

}  // namespace TavroRTC::FDModule
