#pragma once

// A line on the standard error that tells how far the run is: only on a terminal, and only if the
// length of the input is known.

#include <chrono>
#include <cstdint>

namespace tavro::host {

class ProgressLine {
 public:
  /// `total` frames in all, 0 if unknown.
  explicit ProgressLine(int64_t total);
  ~ProgressLine();
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

  void update(int64_t done);

 private:
  int64_t total_;
  bool shown_ = false;
  bool enabled_;
  std::chrono::steady_clock::time_point next_;
};

}  // namespace tavro::host
