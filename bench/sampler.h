#pragma once

// How everything here is timed. The machine is shared and never quiet, so contenders take turns. In
// each round every contender does a short batch of runs, and each run is timed by itself. A
// disturbance that lasts longer than a round slows all contenders alike. A shorter one makes
// outliers, which the median leaves out.

#include <cstddef>
#include <functional>
#include <span>
#include <string>
#include <vector>

namespace tavro::bench {

/// Times of single runs in nanoseconds.
using RunTimes = std::vector<double>;

struct Timing {
  double median = 0;
  double lowerQuartile = 0;
  double upperQuartile = 0;
  double fastest = 0;
  size_t runs = 0;
};

Timing summarize(RunTimes times);

/// One of those that are compared. `measure` does some runs and appends the time of each.
struct Contender {
  std::string name;
  int runsPerTurn = 1;
  std::function<void(int runs, RunTimes& times)> measure;
};

/// A contender that is a function of this process. Each turn begins with a run that isn't counted,
/// because the others have filled the caches.
Contender inProcess(std::string name, int runsPerTurn, std::function<void()> run);

/// Lets the contenders take turns, with another one first in each round. The first round isn't
/// counted. Returns the timings in the order of the contenders.
std::vector<Timing> takeTurns(std::span<const Contender> contenders, int rounds);

/// Keeps this thread, and the processes that it starts, on one core. False if the system refuses.
bool pinToCore(int core);

/// The cores that this process may use.
std::vector<int> usableCores();

/// Nanoseconds on a steady clock.
double now();
/// Nanoseconds that the thread has had of the processor. What other programs take isn't counted.
double processorTime();

}  // namespace tavro::bench
