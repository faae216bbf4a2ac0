#pragma once

// What this build can read and write, beside VideoInput::open and the sinks of annotation.h:
// implemented by one of the folders ffmpeg/ and plain/.

#include <string>
#include <vector>

namespace tavro::host {

/// Called once, before any other function of the folder.
void prepareMedia();

/// What the user is told about it.
struct MediaHelp {
  const char* input;        ///< of the argument INPUT
  const char* inputFormat;  ///< of --input-format
  const char* inputOption;  ///< of --input-option
  const char* annotate;     ///< of --annotate
  const char* examples;     ///< lines of at most 100 columns, each with its line ending
  const char* conversion;   ///< which video reaches the detector in which form
};
MediaHelp mediaHelp();

/// The endings of names that --annotate takes.
std::vector<std::string> annotationExtensions();

}  // namespace tavro::host
