#pragma once

// The half-float conversions in the processor's own instructions, eight at a time. Only
// number_conversion.cpp calls them, after it has asked for F16C.

#include <cstdint>

namespace TavroRTC::FDModule::f16c {

inline constexpr int64_t groupSize = 8;

/// Both convert `groups` * groupSize elements; floatToHalf rounds to nearest even.
void halfToFloat(const uint16_t* src, float* dst, int64_t groups);
void floatToHalf(const float* src, uint16_t* dst, int64_t groups);

}  // namespace TavroRTC::FDModule::f16c
