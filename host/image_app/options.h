#pragma once

// What the user asks for on the command line, and the exit codes of the application.

#include <optional>
#include <string>

#include "host/image_app/catalog.h"
#include "host/image_app/picture.h"

namespace tavro::host::image {

inline constexpr int exitSuccess = 0;
inline constexpr int exitRefused = 2;  ///< bad usage, unreadable input or unwritable output

/// One task. `from` and `to` are the same format unless it converts.
struct Options {
  std::string input;   ///< a file, or "-" for raw data from the standard input
  std::string output;  ///< likewise
  const PictureFormat* from = nullptr;
  const PictureFormat* to = nullptr;
  const Conversion* conversion = nullptr;  ///< null: scale
  const Filter* filter = nullptr;
  Size rawSize;                                      ///< of a raw input
  std::optional<TavroRTC::FDModule::CropRect> rect;  ///< the part to scale; empty: all of it
  std::optional<Size> targetSize;                    ///< empty: the size of the part
};

struct ParsedOptions {
  Options options;
  std::optional<int> exitCode;  ///< set if there is nothing to run: help, list or bad usage
};

/// Parses the command line. Help, version and the tables go to the standard output, bad usage to
/// the standard error as one line.
ParsedOptions parseOptions(int argumentCount, const char* const* arguments);

}  // namespace tavro::host::image
