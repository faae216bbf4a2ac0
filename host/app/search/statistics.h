#pragma once

// What a run tells the user about itself: how far it has come, and its timings.

#include <chrono>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "host/core/frame_search.h"

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
  double seconds = 0.0;      ///< of the whole run, decoding and output included
  int32_t smallestFace = 0;  ///< that the windows show, in pixels

  /// Notes what each window took in a frame. Those of frames of another size before are forgotten.
  void addWindows(std::span<const WindowReport> reports);
  /// Several lines for the user, each with its line ending.
  std::string report() const;

 private:
  struct WindowTimes {
    Window window;
    std::vector<double> milliseconds;
  };
  std::vector<WindowTimes> windows_;
};

/// A line on the standard error that tells how far the program is: only on a terminal. Of a single
/// input, its length must be known.
class ProgressLine {
 public:
  ProgressLine();
  ~ProgressLine() { erase(); }
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

  /// For results that go to a terminal: the line would stand before each of them.
  void disable() { enabled_ = false; }
  /// The next of several inputs, counted from 1.
  void beginInput(size_t number, size_t count);
  /// `done` of `total` frames; 0 if the total is unknown.
  void update(int64_t done, int64_t total);
  /// Makes room for other lines.
  void erase();

 private:
  std::string input_;  ///< which of several, such as "2 of 8 inputs"
  bool shown_ = false;
  bool enabled_;
  std::chrono::steady_clock::time_point next_;
};

}  // namespace tavro::host
