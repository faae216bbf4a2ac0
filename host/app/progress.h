#pragma once

// A line on the standard error that tells how far the run is: only on a terminal, and only if the
// length of the input is known.

#include <chrono>
#include <cstdint>

namespace tavro::host {

class ProgressLine {
 public:
  ProgressLine();
  ~ProgressLine() { erase(); }
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

  /// Where the results go to a terminal, they would stand behind the line.
  void disable() { enabled_ = false; }
  /// `done` of `total` frames in all, 0 if unknown.
  void update(int64_t done, int64_t total);
  /// Makes room for other lines.
  void erase();

 private:
  bool shown_ = false;
  bool enabled_;
  std::chrono::steady_clock::time_point next_;
};

}  // namespace tavro::host
