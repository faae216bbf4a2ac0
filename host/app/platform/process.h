#pragma once

// What the application asks of the operating system about its own process: posix_process.cpp and
// windows_process.cpp implement it.

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

/// Called first of all: a standard stream that is closed would lend its number to the next file,
/// and what is meant for the stream would end up in there. Reading or writing it still fails.
void holdStandardStreams();

/// True for a terminal that understands escape sequences.
bool isTerminal(std::FILE* stream);

/// How wide the terminal at the standard output is, 80 if it isn't a terminal.
int terminalColumns();

/// What fopen() does, with a name in UTF-8.
std::FILE* openFile(const std::string& name, const char* mode);

/// The standard input, with its bytes as they are.
std::FILE* binaryStandardInput();

/// The most memory that the process has used so far.
double peakMebibytes();

/// From here on Ctrl-C (SIGINT) and SIGTERM end the input instead of the process, so that a
/// recording from a camera ends with complete files. A second signal ends the process the usual
/// way.
void catchStopSignals();
/// The number of the first of these signals; 0 if none has come.
int stopSignal();
inline bool isStopRequested() {
  return stopSignal() != 0;
}

/// Modules print diagnostics to the process's standard output, and they must stay out of the
/// results: from here on everything written to descriptor 1 goes to the standard error. Returns the
/// stream that still leads to where descriptor 1 led before; null if that was closed.
StreamHandle divertStandardOutput();

/// From here on nothing is seen of what is written to descriptor 1.
void discardStandardOutput();

}  // namespace tavro::host
