#pragma once

// Captures what the process writes to its standard output, through stdio and iostream alike, by
// redirecting the descriptor itself into a temporary file.

#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <string>
#include <utility>

namespace tavro::test {

class CapturedStdout {
 public:
  CapturedStdout() : file_(std::tmpfile()), saved_(dup(STDOUT_FILENO)) {
    flush();
    if (file_ != nullptr && saved_ >= 0)
      dup2(fileno(file_), STDOUT_FILENO);
  }
  ~CapturedStdout() { stop(); }
  CapturedStdout(const CapturedStdout&) = delete;
  CapturedStdout& operator=(const CapturedStdout&) = delete;

  /// Gives the standard output back; the text captured so far.
  std::string stop() {
    if (saved_ >= 0) {
      flush();
      dup2(saved_, STDOUT_FILENO);
      close(std::exchange(saved_, -1));
    }
    std::string text;
    if (FILE* file = std::exchange(file_, nullptr)) {
      std::rewind(file);
      for (int c = std::fgetc(file); c != EOF; c = std::fgetc(file))
        text.push_back(static_cast<char>(c));
      std::fclose(file);
    }
    return text;
  }

 private:
  static void flush() {
    std::cout.flush();
    std::fflush(stdout);
  }

  FILE* file_;
  int saved_;
};

}  // namespace tavro::test
