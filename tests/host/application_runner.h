#pragma once

// Runs the application as a user does, in a process of its own, and reads what it leaves.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <random>
#include <span>
#include <sstream>
#include <string>
#include <vector>

#include "host/app/media.h"
#include "host/core/i420_frame.h"
#include "host/core/utf8_path.h"
#include "tests/support/child_process.h"
#include "tests/support/frames.h"

namespace tavro::test {

/// A folder of its own for one test, removed with everything in it.
class TemporaryFolder {
 public:
  TemporaryFolder() {
    std::random_device chance;
    do
      path_ = std::filesystem::path(testing::TempDir()) / ("tavro-fd-" + std::to_string(chance()));
    while (!std::filesystem::create_directory(path_));
  }
  ~TemporaryFolder() {
    std::error_code failure;
    std::filesystem::remove_all(path_, failure);
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  /// The name of a file in the folder, in UTF-8.
  std::string file(const std::string& name) const {
    return host::utf8FromPath(path_ / host::pathFromUtf8(name));
  }

 private:
  std::filesystem::path path_;
};

/// A test with a folder of its own, in which the media libraries are as quiet as in the
/// application.
class FileTest : public testing::Test {
 protected:
  FileTest() { host::prepareMedia(); }

  TemporaryFolder folder_;
};

inline std::string contentOf(const std::string& path) {
  std::ifstream file(host::pathFromUtf8(path), std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

inline void writeFile(const std::string& path, const std::string& content) {
  std::ofstream(host::pathFromUtf8(path), std::ios::binary) << content;
}

struct Outcome {
  int exitCode = -1;  ///< -1 if it didn't end by itself
  std::string output;
  std::string errors;

  /// The lines of the standard output, each parsed; a line that isn't JSON fails the test.
  std::vector<nlohmann::json> results() const {
    std::vector<nlohmann::json> lines;
    std::istringstream text(output);
    for (std::string line; std::getline(text, line);) {
      lines.push_back(nlohmann::json::parse(line, nullptr, false));
      EXPECT_TRUE(lines.back().is_object()) << line;
    }
    return lines;
  }
  /// True if the standard error is one line of the application's own.
  bool hasOneErrorLine() const {
    return errors.starts_with("tavro-fd: ") && std::count(errors.begin(), errors.end(), '\n') == 1;
  }
};

/// Runs the application with the standard input from `input`.
inline Outcome runApplication(const std::vector<std::string>& arguments,
                              const std::string& input = nullDevice) {
  const TemporaryFolder folder;
  const std::string outputFile = folder.file("output");
  const std::string errorFile = folder.file("errors");
  Outcome outcome;
  outcome.exitCode = runProgram(APPLICATION_FILE, arguments, {input, outputFile, errorFile});
  outcome.output = contentOf(outputFile);
  outcome.errors = contentOf(errorFile);
  std::erase(outcome.errors,
             '\r');  // the standard error is text; the results are the same anywhere
  return outcome;
}

/// Runs it with the fake detector, which answers with what it was given.
inline Outcome runWithFake(std::vector<std::string> arguments,
                           const std::string& input = nullDevice) {
  arguments.insert(arguments.end(), {"--module", FAKE_GOOD_FILE});
  return runApplication(arguments, input);
}

/// A YUV4MPEG2 stream of the frames: the simplest of the formats that carry I420 as it is.
inline std::string y4m(std::span<const host::I420Frame> frames,
                       const std::string& parameters = "F25:1 C420jpeg") {
  std::string stream = "YUV4MPEG2 W" + std::to_string(frames.front().width()) + " H" +
                       std::to_string(frames.front().height()) + " " + parameters + "\n";
  for (const host::I420Frame& frame : frames)
    stream += "FRAME\n" + samplesOf(frame);
  return stream;
}

/// A frame whose quarters have the given luma (top left, top right, bottom left, bottom right) and
/// whose chroma is neutral.
inline host::I420Frame quarters(int32_t width, int32_t height, const uint8_t (&luma)[4]) {
  host::I420Frame frame = plainFrame(width, height);
  for (int32_t y = 0; y < height; ++y)
    for (int32_t x = 0; x < width; ++x)
      frame.writablePlane(0)[y * width + x] = luma[(y >= height / 2 ? 2 : 0) + (x >= width / 2)];
  return frame;
}

}  // namespace tavro::test
