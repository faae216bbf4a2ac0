#pragma once

// Captures what the process writes to its standard output, through stdio and iostream alike.

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <utility>

namespace tavro::test {

/// One at a time.
class CapturedStdout {
 public:
  CapturedStdout() {
    std::fflush(stdout);
    testing::internal::CaptureStdout();
  }
  ~CapturedStdout() { stop(); }
  CapturedStdout(const CapturedStdout&) = delete;
  CapturedStdout& operator=(const CapturedStdout&) = delete;

  /// Ends the capture and returns its text.
  std::string stop() {
    return std::exchange(captures_, false) ? testing::internal::GetCapturedStdout() : "";
  }

 private:
  bool captures_ = true;
};

}  // namespace tavro::test
