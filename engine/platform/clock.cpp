#include "engine/platform/clock.h"

#if defined(_WIN32)
#include <windows.h>
#else
#include <chrono>
#endif

namespace TavroRTC::FDModule {

#if defined(_WIN32)

int64_t nowNanoseconds() {
  LARGE_INTEGER ticksPerSecond;
  LARGE_INTEGER ticks;
  QueryPerformanceFrequency(&ticksPerSecond);
  QueryPerformanceCounter(&ticks);
  return ticksToNanoseconds(ticks.QuadPart, ticksPerSecond.QuadPart);
}

#else

int64_t nowNanoseconds() {
  using Clock = std::chrono::steady_clock;
  static_assert(Clock::period::num == 1);
  return ticksToNanoseconds(Clock::now().time_since_epoch().count(), Clock::period::den);
}

#endif

}  // namespace TavroRTC::FDModule
