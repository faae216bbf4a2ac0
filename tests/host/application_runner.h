#pragma once

// Runs the application as a user does, in a process of its own, and reads what it leaves.

#include <gtest/gtest.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "tests/host/media_files.h"
#include "tests/support/child_process.h"

namespace tavro::test {

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
  std::erase(outcome.errors, '\r');  // it is text; the results are the same anywhere
  return outcome;
}

/// Runs it with the fake detector, which answers with what it was given.
inline Outcome runWithFake(std::vector<std::string> arguments,
                           const std::string& input = nullDevice) {
  arguments.insert(arguments.end(), {"--module", FAKE_GOOD_FILE});
  return runApplication(arguments, input);
}

/// What it answers where all goes well: `count` results.
inline std::vector<nlohmann::json> resultsOf(const std::vector<std::string>& arguments,
                                             size_t count) {
  const Outcome outcome = runWithFake(arguments);
  EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
  auto results = outcome.results();
  EXPECT_EQ(results.size(), count);
  results.resize(count);
  return results;
}

}  // namespace tavro::test
