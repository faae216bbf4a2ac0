#include "bench/sampler.h"

#include <sched.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <utility>

namespace tavro::bench {
namespace {

constexpr int mostCores = CPU_SETSIZE;

/// The value below which that share of the sorted times lies.
double quantile(const RunTimes& sorted, double share) {
  const double position = share * static_cast<double>(sorted.size() - 1);
  const auto below = static_cast<size_t>(position);
  const size_t above = std::min(below + 1, sorted.size() - 1);
  const double weight = position - static_cast<double>(below);
  return sorted[below] * (1 - weight) + sorted[above] * weight;
}

}  // namespace

Timing summarize(RunTimes times) {
  if (times.empty())
    return {};
  std::ranges::sort(times);
  return {.median = quantile(times, 0.5),
          .lowerQuartile = quantile(times, 0.25),
          .upperQuartile = quantile(times, 0.75),
          .fastest = times.front(),
          .runs = times.size()};
}

Contender inProcess(std::string name, int runsPerTurn, std::function<void()> run) {
  auto measure = [run = std::move(run)](int runs, RunTimes& times) {
    run();
    for (int i = 0; i < runs; ++i) {
      const double start = now();
      run();
      times.push_back(now() - start);
    }
  };
  return {.name = std::move(name), .runsPerTurn = runsPerTurn, .measure = std::move(measure)};
}

std::vector<Timing> takeTurns(std::span<const Contender> contenders, int rounds) {
  const size_t count = contenders.size();
  std::vector<RunTimes> times(count);
  for (size_t round = 0; round <= static_cast<size_t>(rounds); ++round) {
    for (size_t turn = 0; turn < count; ++turn) {
      const size_t who = (round + turn) % count;
      contenders[who].measure(contenders[who].runsPerTurn, times[who]);
    }
    if (round == 0)
      times.assign(count, {});
  }
  std::vector<Timing> timings;
  timings.reserve(count);
  for (RunTimes& ofOne : times)
    timings.push_back(summarize(std::move(ofOne)));
  return timings;
}

bool pinToCore(int core) {
  cpu_set_t cores;
  CPU_ZERO(&cores);
  if (core < 0 || core >= mostCores)
    return false;
  CPU_SET(static_cast<size_t>(core), &cores);
  return sched_setaffinity(0, sizeof(cores), &cores) == 0;
}

std::vector<int> usableCores() {
  cpu_set_t set;
  CPU_ZERO(&set);
  std::vector<int> cores;
  if (sched_getaffinity(0, sizeof(set), &set) != 0)
    return cores;
  for (int core = 0; core < mostCores; ++core)
    if (CPU_ISSET(static_cast<size_t>(core), &set))
      cores.push_back(core);
  return cores;
}

double now() {
  const auto time = std::chrono::steady_clock::now().time_since_epoch();
  return std::chrono::duration<double, std::nano>(time).count();
}

double processorTime() {
  timespec time = {};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
}

}  // namespace tavro::bench
