#pragma once

#include <cstdio>
#include <string>
#include <vector>

namespace tavro::bench {

/// A program that answers lines with lines. It runs on the core of the thread that starts it and is
/// told to end by the end of its input.
class ChildProcess {
 public:
  /// Throws std::runtime_error, as `ask` does.
  explicit ChildProcess(const std::vector<std::string>& command);
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  std::string ask(const std::string& line);

 private:
  std::FILE* toChild_ = nullptr;
  std::FILE* fromChild_ = nullptr;
  int process_ = -1;
};

}  // namespace tavro::bench
