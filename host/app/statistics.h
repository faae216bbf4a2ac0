#pragma once

// Timings of a run: what the detector took per frame, and how fast the whole pipeline was.

#include <cstdint>
#include <string>
#include <vector>

namespace tavro::host {

struct TimingSummary {
  double minimum = 0.0;
  double median = 0.0;  ///< of an even count, the mean of the middle two
  double p99 = 0.0;     ///< nearest rank: 99 % of the values are at most this
  double maximum = 0.0;
};

/// All zero for no values.
TimingSummary summarize(std::vector<double> values);

struct RunStatistics {
  std::vector<double> milliseconds;  ///< of each detection
  int64_t decodedFrames = 0;
  double seconds = 0.0;  ///< of the whole run, decoding and output included

  /// Several lines for the user, each with its line ending.
  std::string report() const;
};

}  // namespace tavro::host
