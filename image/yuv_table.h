#pragma once

// The constants of the conversion from YUV to colours, standard BT.601 in its limited range, in the
// form that vector kernels load: each value repeated over a register and more.
//
// A colour is clamp((bias - (c * u + d * v) + y1) >> 6), with y1 = (y * yGain * 257) >> 16 and
// (c, d) the pair of its output byte. All terms are in units of 1/64.

#include <cstdint>

namespace TavroRTC::FDModule {

struct YuvTable {
  static constexpr int32_t copies = 16;

  alignas(16) int8_t first[2 * copies];  ///< pairs (coefficient of U, of V) for output byte 0
  int8_t second[2 * copies];             ///< for output byte 1
  int8_t third[2 * copies];              ///< for output byte 2
  int16_t firstBias[copies];
  int16_t secondBias[copies];
  int16_t thirdBias[copies];
  int16_t yGain[copies];
};

extern const YuvTable yuvTableBgr;

/// The other table with U and V exchanged: given the planes in swapped order it puts red first.
extern const YuvTable yuvTableRgb;

/// The bytes of a packed pixel; "out" stands for the three colours in the table's order.
enum class PackMode : int32_t {
  fourBytes = 1,    ///< out, 255
  opaqueFirst = 2,  ///< 255, out
  threeBytes = 3,   ///< out
};

}  // namespace TavroRTC::FDModule
