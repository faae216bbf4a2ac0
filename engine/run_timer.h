#pragma once

// RunTimer: a named timer on the stack of the function that it measures. It serves both for a whole
// operation (report on closing) and, restarted with a new label each time, for its steps.

#include <cstdint>
#include <limits>
#include <string>

namespace TavroRTC::FDModule {

/// Nanoseconds of a steady clock, from an arbitrary origin.
int64_t nowNanoseconds();

/// Ticks of a counter in nanoseconds, in the order that keeps the product within 64 bits.
constexpr int64_t ticksToNanoseconds(int64_t ticks, int64_t ticksPerSecond) {
  constexpr int64_t perSecond = 1000000000;
  return ticks / ticksPerSecond * perSecond + ticks % ticksPerSecond * perSecond / ticksPerSecond;
}

class RunTimer {
 public:
  /// `printCost`: the destructor prints the time since construction. Otherwise, `printStats`: it
  /// prints the shortest, longest and mean time between start and stop.
  RunTimer(std::string timerName, bool printCost, bool printStats);
  ~RunTimer();
  RunTimer(const RunTimer&) = delete;
  RunTimer& operator=(const RunTimer&) = delete;

  /// Begins a step. A label that isn't empty becomes the timer's name, cut to 80 characters. The
  /// line about the whole time is given up.
  void start(const std::string& label);

  /// Ends a step and prints its line.
  void stop();

  std::string name;
  int64_t startNs = 0;
  bool reportOnClose = false;
  bool reportStats = false;
  float minMs = std::numeric_limits<float>::max();
  float maxMs = std::numeric_limits<float>::min();
  float sumMs = 0;
  int32_t count = 0;
};

}  // namespace TavroRTC::FDModule
