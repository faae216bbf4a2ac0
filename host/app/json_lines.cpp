#include "host/app/json_lines.h"

#include <charconv>
#include <cmath>

namespace tavro::host {

namespace {

/// At most six decimals, at least one.
std::string decimal(double value) {
  if (!std::isfinite(value))
    value = 0.0;
  char text[400];  // the longest double in fixed notation has 309 digits before the point
  const char* end = std::to_chars(text, text + sizeof text, value, std::chars_format::fixed, 6).ptr;
  std::string digits(text, static_cast<size_t>(end - text));
  digits.erase(digits.find_last_not_of('0') + 1);
  if (digits.back() == '.')
    digits += '0';
  return digits == "-0.0" ? "0.0" : digits;
}

/// "name":value
std::string field(const char* name, const std::string& value) {
  return '"' + std::string(name) + "\":" + value;
}

}  // namespace

std::string jsonLine(const FrameResult& result) {
  std::string faces;
  for (const auto& face : result.faces) {
    faces += faces.empty() ? "{" : ",{";
    faces += field("left", std::to_string(face.left)) + ',';
    faces += field("top", std::to_string(face.top)) + ',';
    faces += field("right", std::to_string(face.right)) + ',';
    faces += field("bottom", std::to_string(face.bottom)) + '}';
  }
  return '{' + field("frame", std::to_string(result.frame)) + ',' +
         field("time", decimal(result.time)) + ',' + field("width", std::to_string(result.width)) +
         ',' + field("height", std::to_string(result.height)) + ',' +
         field("faces", '[' + faces + ']') + ',' +
         field("ms", decimal(std::round(result.milliseconds * 1000.0) / 1000.0)) + '}';
}

}  // namespace tavro::host
