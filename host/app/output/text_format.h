#pragma once

// The forms in which results are written as text (--format). A TextFormat says what stands at the
// beginning, for each frame and at the end; it knows nothing of files. To add one, implement it and
// give it a row in the table of text_formats.cpp.

#include <memory>
#include <span>
#include <string>

#include "host/app/search/frame_result.h"

namespace tavro::host {

class TextFormat {
 public:
  virtual ~TextFormat() = default;
  /// The text for one analysed frame, with its line endings; it may be empty.
  virtual std::string frame(const FrameResult& result) = 0;
  /// The text after the last frame, which ends at `endTime`.
  virtual std::string end(double /*endTime*/) { return {}; }
};

struct TextFormatKind {
  const char* name;
  const char* summary;  ///< for the help, at most 80 characters
  std::unique_ptr<TextFormat> (*make)();
};

/// The first one is the default.
std::span<const TextFormatKind> textFormats();
/// Null for an unknown name.
const TextFormatKind* findTextFormat(const std::string& name);

std::unique_ptr<TextFormat> makeJsonLines();
std::unique_ptr<TextFormat> makeCsv();
std::unique_ptr<TextFormat> makeAssSubtitles();
std::unique_ptr<TextFormat> makeDrawFilter();
std::unique_ptr<TextFormat> makeBlurFilter();

/// A number with one to `decimals` decimals, in any locale; 0.0 if it isn't finite.
std::string decimal(double value, int decimals = 6);

}  // namespace tavro::host
