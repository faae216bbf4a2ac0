#pragma once

#include <cstdint>

namespace TavroRTC::FDModule {

/// Nanoseconds of a steady clock, from an arbitrary origin.
int64_t nowNanoseconds();

/// Ticks of a counter in nanoseconds, in the order that keeps the product within 64 bits.
constexpr int64_t ticksToNanoseconds(int64_t ticks, int64_t ticksPerSecond) {
  constexpr int64_t perSecond = 1000000000;
  return ticks / ticksPerSecond * perSecond + ticks % ticksPerSecond * perSecond / ticksPerSecond;
}

}  // namespace TavroRTC::FDModule
