#pragma once

// What the user asks for on the command line, and the exit codes of the application.

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace tavro::host {

inline constexpr int exitSuccess = 0;
inline constexpr int exitIncomplete = 1;  ///< results were written, but not for all of the input
inline constexpr int exitBadInput = 2;    ///< bad usage, unreadable input or unwritable output

struct Options {
  std::string input;        ///< file, URL or device, or "-" for the standard input
  std::string inputFormat;  ///< name of the input format; empty: found out
  std::vector<std::pair<std::string, std::string>> inputOptions;  ///< of the input format

  std::string output;     ///< file for the results; empty: the standard output
  std::string format;     ///< of the results: a name of text_format.h; empty: the first
  std::string annotate;   ///< picture or video to write; empty: none
  bool blur = false;      ///< show pictures without the faces rather than with rectangles
  std::string cropFaces;  ///< folder for a picture of each face; empty: none
  std::string report;     ///< HTML page to write; empty: none
  std::string serve;      ///< where a browser can watch, as of WebAddress; empty: nowhere
  std::string module;     ///< the detector module's file; empty: looked for beside the program

  int64_t every = 1;      ///< detect on frames 0, every, 2 * every, ...
  int64_t maxFrames = 0;  ///< stop after that many decoded frames; 0: at the end
  int32_t repeat = 1;     ///< passes over the input; only the first one writes anything
  bool stats = false;
};

struct ParsedOptions {
  Options options;
  std::optional<int> exitCode;  ///< set if there is nothing to run: help, version or bad usage
};

/// Parses the arguments, which are in UTF-8. Help and version go to the standard output, bad usage
/// to the standard error as one line.
ParsedOptions parseOptions(const std::vector<std::string>& arguments);

}  // namespace tavro::host
