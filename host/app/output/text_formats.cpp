#include "host/app/output/text_format.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <iterator>

namespace tavro::host {

namespace {

constexpr TextFormatKind kinds[] = {
    {"jsonl", "one JSON object a frame", &makeJsonLines},
    {"csv", "one line a face, or a frame without one; with a heading", &makeCsv},
    {"ass", "a subtitle track that draws the boxes, for players and ffmpeg -vf ass=FILE",
     &makeAssSubtitles},
    {"draw-filter", "for ffmpeg -filter_script:v FILE: draws the boxes", &makeDrawFilter},
    {"blur-filter", "for ffmpeg -filter_script:v FILE: pixelates the faces", &makeBlurFilter},
};

}  // namespace

std::span<const TextFormatKind> textFormats() {
  return kinds;
}

const TextFormatKind* findTextFormat(const std::string& name) {
  const auto* found = std::find_if(std::begin(kinds), std::end(kinds),
                                   [&](const TextFormatKind& kind) { return kind.name == name; });
  return found != std::end(kinds) ? found : nullptr;
}

std::string decimal(double value, int decimals) {
  if (!std::isfinite(value))
    value = 0.0;
  char text[400];  // the longest double in fixed notation has 309 digits before the point
  const char* end =
      std::to_chars(text, text + sizeof text, value, std::chars_format::fixed, decimals).ptr;
  std::string digits(text, static_cast<size_t>(end - text));
  digits.erase(digits.find_last_not_of('0') + 1);
  if (digits.back() == '.')
    digits += '0';
  return digits == "-0.0" ? "0.0" : digits;
}

}  // namespace tavro::host
