#include "bench/report_data.h"

#include <algorithm>
#include <cmath>

#include "bench/fma_peak.h"

namespace tavro::bench {

double Report::gigahertz() const {
  return peakGflops / fmaOperationsPerCycle;
}

double Report::shareOfPeak(double operations, const Timing& timing) const {
  return peakGflops > 0 && timing.median > 0 ? operations / timing.median / peakGflops : 0;
}

int ReportOptions::rounds(int usual) const {
  return std::max(3, static_cast<int>(std::lround(usual * effort)));
}

}  // namespace tavro::bench
