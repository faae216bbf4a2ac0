// The engine's clock is the system's performance counter, in nanoseconds without overflow.

#include <gtest/gtest.h>
#include <windows.h>

#include "engine/run_timer.h"

namespace TavroRTC::FDModule {
namespace {

/// The counter in nanoseconds by arithmetic that is wide enough for the plain formula.
int64_t counterNanoseconds() {
  LARGE_INTEGER ticks;
  LARGE_INTEGER perSecond;
  QueryPerformanceCounter(&ticks);
  QueryPerformanceFrequency(&perSecond);
  __extension__ using Wide = __int128;
  return static_cast<int64_t>(Wide{ticks.QuadPart} * 1000000000 / perSecond.QuadPart);
}

TEST(Clock, IsThePerformanceCounter) {
  for (int i = 0; i < 1000; ++i) {
    const int64_t before = counterNanoseconds();
    const int64_t now = nowNanoseconds();
    const int64_t after = counterNanoseconds();
    ASSERT_LE(before, now);
    ASSERT_LE(now, after);
  }
}

}  // namespace
}  // namespace TavroRTC::FDModule
