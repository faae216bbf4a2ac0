#include "host/app/plain/stream_header.h"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <tuple>

namespace tavro::host {

namespace {

/// The positive number that is all of the text; 0 if it is anything else.
int32_t positiveNumber(std::string_view text) {
  int32_t value = 0;
  const char* end = text.data() + text.size();
  const auto [rest, failure] = std::from_chars(text.data(), end, value);
  return failure == std::errc() && rest == end && value > 0 ? value : 0;
}

/// Two positive numbers, first and second zero if the text isn't that.
std::pair<int32_t, int32_t> numbersAround(std::string_view text, char separator) {
  const size_t at = text.find(separator);
  if (at == std::string_view::npos)
    return {0, 0};
  return {positiveNumber(text.substr(0, at)), positiveNumber(text.substr(at + 1))};
}

bool isPlain420(std::string_view sampling) {
  constexpr std::string_view known[] = {"420", "420jpeg", "420mpeg2", "420paldv"};
  return std::ranges::find(known, sampling) != std::end(known);
}

}  // namespace

std::optional<StreamHeader> parseY4mHeader(std::string_view line, std::string& error) {
  constexpr std::string_view magic = "YUV4MPEG2";
  if (!line.starts_with(magic)) {
    error = "isn't a Y4M stream";
    return std::nullopt;
  }
  StreamHeader header;
  std::string_view rest = line.substr(magic.size());
  while (!rest.empty()) {
    const std::string_view word = rest.substr(0, rest.find(' '));
    rest.remove_prefix(std::min(word.size() + 1, rest.size()));
    if (word.empty())
      continue;
    const std::string_view value = word.substr(1);
    if (word[0] == 'W') {
      header.width = positiveNumber(value);
    } else if (word[0] == 'H') {
      header.height = positiveNumber(value);
    } else if (word[0] == 'F') {
      if (const auto [numerator, denominator] = numbersAround(value, ':');
          numerator > 0 && denominator > 0)
        header.frameRate = {numerator, denominator};
    } else if (word[0] == 'C' && !isPlain420(value)) {
      error = "has samples of the form " + std::string(value) + ", only 8-bit 4:2:0 can be read";
      return std::nullopt;
    } else if (word == "XCOLORRANGE=FULL") {
      error = "has full-range samples, only limited range can be read";
      return std::nullopt;
    }
  }
  if (header.width == 0 || header.height == 0) {
    error = "has no picture size in its header";
    return std::nullopt;
  }
  return header;
}

std::optional<StreamHeader> parseRawOptions(
    const std::vector<std::pair<std::string, std::string>>& options, std::string& error) {
  StreamHeader header;
  for (const auto& [key, value] : options) {
    if (key == "video_size") {
      std::tie(header.width, header.height) = numbersAround(value, 'x');
    } else if (key == "framerate") {
      const bool isWhole = positiveNumber(value) > 0;
      const auto [numerator, denominator] =
          isWhole ? std::pair{positiveNumber(value), 1} : numbersAround(value, '/');
      if (numerator == 0 || denominator == 0) {
        error = "isn't a frame rate: " + value;
        return std::nullopt;
      }
      header.frameRate = {numerator, denominator};
    } else if (key != "pixel_format") {
      error = "input format 'rawvideo' has no option '" + key + "'";
      return std::nullopt;
    } else if (value != "yuv420p") {
      error = "raw samples can be yuv420p only, not " + value;
      return std::nullopt;
    }
  }
  if (header.width == 0 || header.height == 0) {
    error = "raw samples need --input-option video_size=WIDTHxHEIGHT";
    return std::nullopt;
  }
  return header;
}

}  // namespace tavro::host
