#pragma once

// Runs a program in a process of its own, with its standard streams on files.

#include <string>
#include <vector>

namespace tavro::test {

/// The file that takes everything and holds nothing.
extern const char* const nullDevice;

struct StandardStreams {
  std::string input = nullDevice;
  std::string output = nullDevice;
  std::string errors = nullDevice;
};

/// Waits for the program's end. Its exit code, or -1 if it didn't start or didn't end by itself.
/// Arguments are in UTF-8.
int runProgram(const std::string& file, const std::vector<std::string>& arguments,
               const StandardStreams& streams);

}  // namespace tavro::test
