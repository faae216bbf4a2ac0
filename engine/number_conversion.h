#pragma once

// Conversions between the number formats that a tensor can hold: half floats (IEEE 754 binary16 in
// a uint16_t), floats, and the bytes of a picture, which become normalised floats. All work on
// plain arrays, which must not overlap.

#include <cstdint>

namespace TavroRTC::FDModule {

/// Widens exactly. A NaN becomes a quiet NaN.
void halfToFloat(const uint16_t* src, float* dst, int64_t count);

/// Narrows. With F16C, whole groups of 8 round to nearest even and overflow to infinity; the rest
/// of the array, or all of it on other processors, truncates, and overflow becomes 0x7FFF.
void floatToHalf(const float* src, uint16_t* dst, int64_t count);

/// dst[i] = (src[i] - mean) * scale.
void bytesToFloat(const uint8_t* src, float* dst, int64_t count, float mean, float scale);

/// A row of `width` pixels of three interleaved bytes becomes three rows of width + 2 floats, one
/// behind the other, each normalised as above and with a 0 at either end: the planar, zero-bordered
/// form that a 3x3 kernel with padding 1 reads.
void bytesToFloatPlanes(const uint8_t* src, float* dst, int32_t width, float mean, float scale);

/// The half-float conversions in the processor's own instructions, eight at a time. Only the
/// functions above call them, after they have asked for F16C.
namespace f16c {

inline constexpr int64_t groupSize = 8;

/// Both convert `groups` * groupSize elements; floatToHalf rounds to nearest even.
void halfToFloat(const uint16_t* src, float* dst, int64_t groups);
void floatToHalf(const float* src, uint16_t* dst, int64_t groups);

}  // namespace f16c

}  // namespace TavroRTC::FDModule
