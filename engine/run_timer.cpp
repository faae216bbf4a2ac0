#include "engine/run_timer.h"

#include <algorithm>
#include <iomanip>
#include <iostream>
#include <utility>

#if defined(_WIN32)
#include <windows.h>
#else
#include <chrono>
#endif

namespace TavroRTC::FDModule {
namespace {

constexpr size_t maxLabelLength = 80;
constexpr int nameColumns = 80;
constexpr int costColumns = 10;

float millisecondsSince(int64_t startNs) {
  return static_cast<float>(nowNanoseconds() - startNs) / 1e6F;
}

// The stream belongs to the whole process, so its flags are put back at once.
template <typename T>
void printLeftJustified(const T& value, int columns) {
  const std::ios_base::fmtflags flags = std::cout.flags();
  std::cout << std::left << std::setw(columns) << value;
  std::cout.flags(flags);
}

}  // namespace

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

RunTimer::RunTimer(std::string timerName, bool printCost, bool printStats)
    : name(std::move(timerName)),
      startNs(printCost ? nowNanoseconds() : 0),
      reportOnClose(printCost),
      reportStats(printStats) {}

RunTimer::~RunTimer() {
  if (reportOnClose) {
    std::cout << name << " cost:   " << millisecondsSince(startNs) << "ms\n";
  } else if (reportStats) {
    const float mean = count > 0 ? sumMs / static_cast<float>(count) : 0.0F;
    std::cout << name << "--min cost: " << minMs << "ms, max cost: " << maxMs
              << "ms, avg cost: " << mean << "ms\n";
  }
}

void RunTimer::start(const std::string& label) {
  if (!label.empty())
    name = label.substr(0, maxLabelLength);
  reportOnClose = false;
  startNs = nowNanoseconds();
}

void RunTimer::stop() {
  const float cost = millisecondsSince(startNs);
  printLeftJustified(name, nameColumns);
  std::cout << " cost:  ";
  printLeftJustified(cost, costColumns);
  std::cout << "ms\n";
  minMs = std::min(minMs, cost);
  maxMs = std::max(maxMs, cost);
  sumMs += cost;
  ++count;
}

}  // namespace TavroRTC::FDModule
