#pragma once

// What the application asks of the platform about its own process. posix/ and windows/ implement
// it, as they do stop_request.h and standard_output.h.

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace tavro::host {

/// Closes a stream that this program has opened: all but the standard input.
struct StreamCloser {
  void operator()(std::FILE* stream) const {
    if (stream != stdin)
      std::fclose(stream);
  }
};
using StreamHandle = std::unique_ptr<std::FILE, StreamCloser>;

/// The arguments behind the program's name, in UTF-8.
std::vector<std::string> commandLine(int argumentCount, char** arguments);

/// True for a terminal that understands escape sequences.
bool isTerminal(std::FILE* stream);

/// What fopen() does, with a name in UTF-8.
std::FILE* openFile(const std::string& name, const char* mode);

/// The standard input, with its bytes as they are.
std::FILE* binaryStandardInput();

/// The most memory that the process has had so far.
double peakMebibytes();

}  // namespace tavro::host
