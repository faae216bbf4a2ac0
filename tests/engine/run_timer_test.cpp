#include "engine/run_timer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <iostream>
#include <string>
#include <thread>

#include "engine/platform/clock.h"
#include "tests/support/captured_stdout.h"

namespace TavroRTC::FDModule {
namespace {

using tavro::test::CapturedStdout;

// The milliseconds in `text` if it is prefix, number and "ms\n", else -1.
double costBetween(const std::string& text, const std::string& prefix) {
  if (!text.starts_with(prefix) || !text.ends_with("ms\n"))
    return -1;
  size_t used = 0;
  const std::string number = text.substr(prefix.size(), text.size() - prefix.size() - 3);
  const double cost = std::stod(number, &used);
  return used == number.size() ? cost : -1;
}

constexpr int64_t twoSeconds = 2000000000;

TEST(RunTimer, reportsTheCostSinceConstructionOnClosing) {
  CapturedStdout output;
  {
    RunTimer timer("Warmup", true, true);
    timer.startNs -= twoSeconds;
  }
  const std::string text = output.stop();
  const double cost = costBetween(text, "Warmup cost:   ");
  EXPECT_GE(cost, 2000) << text;
  EXPECT_LT(cost, 60000);
}

TEST(RunTimer, printsAlignedStepsAndCountsThem) {
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
    EXPECT_EQ(timer.name, std::string(80, 'x'));
    EXPECT_EQ(timer.count, 2);
    EXPECT_GE(timer.maxMs, 2000);
    EXPECT_LT(timer.minMs, 2000);
    EXPECT_FLOAT_EQ(timer.sumMs, timer.minMs + timer.maxMs);
  }
  std::cout.unsetf(std::ios::right | std::ios::showpoint);

  const std::string text = output.stop();
  const size_t end = text.find('\n') + 1;
  const std::string first = text.substr(0, end);
  EXPECT_EQ(first.substr(0, 88), "Net run" + std::string(73, ' ') + " cost:  ");
  const std::string column = first.substr(88, first.size() - 88 - 3);
  EXPECT_EQ(column.size(), 10U);
  EXPECT_EQ(column[0], '2');
  EXPECT_TRUE(column.ends_with("   ")) << column;
  EXPECT_TRUE(first.ends_with("ms\n"));
  const std::string second = text.substr(end);
  EXPECT_TRUE(second.starts_with(std::string(80, 'x') + " cost:  "));
  EXPECT_EQ(std::count(second.begin(), second.end(), '\n'), 1) << "start gives up the closing line";
}

TEST(RunTimer, reportsStatistics) {
  CapturedStdout output;
  {
    RunTimer timer("steps", false, true);
    timer.minMs = 0.5F;
    timer.maxMs = 2;
    timer.sumMs = 3.75F;
    timer.count = 3;
    const RunTimer silent("silent", false, false);
    const RunTimer unused("unused", false, true);
    EXPECT_EQ(unused.startNs, 0);
  }
  EXPECT_EQ(output.stop(),
            "unused--min cost: 3.40282e+38ms, max cost: 1.17549e-38ms, avg cost: 0ms\n"
            "steps--min cost: 0.5ms, max cost: 2ms, avg cost: 1.25ms\n");
}

TEST(Clock, countsNanosecondsWithoutOverflow) {
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
