#include "engine/run_timer.h"

#include <gtest/gtest.h>

#include <chrono>
#include <iostream>
#include <regex>
#include <string>
#include <thread>

#include "tests/support/captured_stdout.h"

namespace TavroRTC::FDModule {
namespace {

using tavro::test::CapturedStdout;

constexpr int64_t twoSeconds = 2000000000;

TEST(RunTimer, ReportsTheWholeTimeOrStatisticsOnClosing) {
  CapturedStdout output;
  {
    RunTimer whole("Warmup", true, true);
    whole.startNs -= twoSeconds;
    RunTimer steps("steps", false, true);
    steps.minMs = 0.5F;
    steps.maxMs = 2;
    steps.sumMs = 3.75F;
    steps.count = 3;
    const RunTimer silent("silent", false, false);
    const RunTimer unused("unused", false, true);
    EXPECT_EQ(unused.startNs, 0);
  }
  const std::string text = output.stop();
  EXPECT_TRUE(std::regex_match(
      text, std::regex("unused--min cost: 3.40282e\\+38ms, max cost: 1.17549e-38ms, avg cost: 0ms\n"
                       "steps--min cost: 0.5ms, max cost: 2ms, avg cost: 1.25ms\n"
                       "Warmup cost:   [2-9][0-9]{3}[0-9.]*ms\n")))
      << text;
}

TEST(RunTimer, PrintsAlignedStepsAndCountsThem) {
  CapturedStdout output;
  std::cout.setf(std::ios::right | std::ios::showpoint);
  const auto flags = std::cout.flags();
  {
    RunTimer timer("Net run", true, false);
    timer.start("");
    timer.startNs -= twoSeconds;
    timer.stop();
    EXPECT_EQ(std::cout.flags(), flags);
    timer.start(std::string(100, 'x'));
    timer.stop();
    EXPECT_EQ(timer.count, 2);
    EXPECT_TRUE(timer.maxMs >= 2000 && timer.minMs < 2000);
    EXPECT_FLOAT_EQ(timer.sumMs, timer.minMs + timer.maxMs);
  }
  std::cout.unsetf(std::ios::right | std::ios::showpoint);

  const std::string text = output.stop();
  // Columns of 80 and 10; start gives up the closing line.
  EXPECT_TRUE(std::regex_match(text, std::regex("Net run {73} cost:  2[0-9.]{3,7} {3}ms\n"
                                                "x{80} cost:  .{10,}ms\n")))
      << text;
}

TEST(Clock, CountsNanosecondsWithoutOverflow) {
  constexpr int64_t tenMegahertz = 10000000;
  constexpr int64_t thirtyYears = 946080000;
  static_assert(ticksToNanoseconds(thirtyYears * tenMegahertz + 3, tenMegahertz) ==
                thirtyYears * 1000000000 + 300);
  static_assert(ticksToNanoseconds(7, 3) == 2333333333);

  const int64_t before = nowNanoseconds();
  std::this_thread::sleep_for(std::chrono::milliseconds(5));
  const int64_t elapsed = nowNanoseconds() - before;
  EXPECT_GE(elapsed, 5000000);
  EXPECT_LT(elapsed, 60 * INT64_C(1000000000));
}

}  // namespace
}  // namespace TavroRTC::FDModule
