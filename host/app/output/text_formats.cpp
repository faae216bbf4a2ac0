#include "host/app/output/text_format.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "host/app/output/frame_output.h"

namespace tavro::host {

namespace {

constexpr TextFormatKind kinds[] = {
    {"jsonl", "one JSON object per frame", &makeJsonLines},
    {"csv", "a heading, then one line per face, or per frame without faces", &makeCsv},
    {"ass", "a subtitle track that draws the boxes, for players and ffmpeg -vf ass=FILE",
     &makeAssSubtitles},
    {"draw-filter", "for ffmpeg -filter_script:v FILE: draws the boxes", &makeDrawFilter},
    {"blur-filter", "for ffmpeg -filter_script:v FILE: pixelates the faces", &makeBlurFilter},
};

/// "name":value
std::string field(const char* name, const std::string& value) {
  return '"' + std::string(name) + "\":" + value;
}

/// One JSON object for each frame, on a line, with its keys always in the same order.
class JsonLines final : public TextFormat {
 public:
  std::string frame(const FrameResult& result) override {
    std::string faces;
    for (size_t i = 0; i < result.faces.size(); ++i) {
      const auto& face = result.faces[i];
      faces += faces.empty() ? "{" : ",{";
      faces += field("number", std::to_string(result.faceNumbers[i])) + ',';
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

/// Comma-separated values with a heading. A frame without faces has one line too, whose face
/// columns are empty, so that every analysed frame can be counted.
class Csv final : public TextFormat {
 public:
  std::string frame(const FrameResult& result) override {
    std::string text;
    if (!begun_)
      text = "frame,time,width,height,face,left,top,right,bottom,ms\n";
    begun_ = true;
    const std::string head = std::to_string(result.frame) + ',' + decimal(result.time) + ',' +
                             std::to_string(result.width) + ',' + std::to_string(result.height);
    const std::string tail = ',' + decimal(result.milliseconds, 3) + '\n';
    for (size_t i = 0; i < result.faces.size(); ++i) {
      const auto& face = result.faces[i];
      text += head;
      for (const int64_t value : {result.faceNumbers[i], int64_t{face.left}, int64_t{face.top},
                                  int64_t{face.right}, int64_t{face.bottom}})
        text += ',' + std::to_string(value);
      text += tail;
    }
    if (result.faces.empty())
      text += head + ",,,,," + tail;
    return text;
  }

 private:
  bool begun_ = false;
};

/// The results as text in one of the formats.
class TextOutput final : public FrameOutput {
 public:
  TextOutput(std::unique_ptr<TextFormat> format, std::FILE* file)
      : format_(std::move(format)), file_(file) {}

  bool take(const AnalysedFrame& frame, std::string& error) override {
    return !frame.analysed || write(format_->frame(frame.result), error);
  }
  bool finish(double endTime, std::string& error) override {
    return write(format_->end(endTime), error);
  }

 private:
  bool write(const std::string& text, std::string& error) {
    if (std::fwrite(text.data(), 1, text.size(), file_) == text.size() &&
        std::fflush(file_) == 0)  // each frame's text at once
      return true;
    error = std::string("the results can't be written: ") + std::strerror(errno);
    return false;
  }

  std::unique_ptr<TextFormat> format_;
  std::FILE* file_;
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

std::unique_ptr<TextFormat> makeJsonLines() {
  return std::make_unique<JsonLines>();
}

std::unique_ptr<TextFormat> makeCsv() {
  return std::make_unique<Csv>();
}

std::unique_ptr<FrameOutput> openTextOutput(const OutputRequest& request) {
  const std::string& name = request.options.format;
  const TextFormatKind* kind = name.empty() ? &textFormats().front() : findTextFormat(name);
  return std::make_unique<TextOutput>(kind->make(), request.results);
}

}  // namespace tavro::host
