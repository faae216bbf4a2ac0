// One JSON object per line and frame, keys always in the same order.

#include "host/app/output/text_format.h"

namespace tavro::host {

namespace {

/// "name":value
std::string field(const char* name, const std::string& value) {
  return '"' + std::string(name) + "\":" + value;
}

class JsonLines final : public TextFormat {
 public:
  std::string frame(const FrameResult& result) override {
    std::string faces;
    for (const auto& face : result.faces) {
      faces += faces.empty() ? "{" : ",{";
      faces += field("left", std::to_string(face.left)) + ',';
      faces += field("top", std::to_string(face.top)) + ',';
      faces += field("right", std::to_string(face.right)) + ',';
      faces += field("bottom", std::to_string(face.bottom)) + '}';
    }
    return '{' + field("frame", std::to_string(result.frame)) + ',' +
           field("time", decimal(result.time)) + ',' +
           field("width", std::to_string(result.width)) + ',' +
           field("height", std::to_string(result.height)) + ',' +
           field("faces", '[' + faces + ']') + ',' + field("ms", decimal(result.milliseconds, 3)) +
           "}\n";
  }
};

}  // namespace

std::unique_ptr<TextFormat> makeJsonLines() {
  return std::make_unique<JsonLines>();
}

}  // namespace tavro::host
