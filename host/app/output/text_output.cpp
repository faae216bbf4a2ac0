// The results as text, in one of the formats of text_format.h.

#include <cerrno>
#include <cstring>

#include "host/app/output/text_format.h"

namespace tavro::host {

namespace {

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

std::unique_ptr<FrameOutput> openTextOutput(const OutputRequest& request, std::string& /*error*/) {
  const std::string& name = request.options.format;
  const TextFormatKind* kind = name.empty() ? &textFormats().front() : findTextFormat(name);
  return std::make_unique<TextOutput>(kind->make(), request.results);
}

}  // namespace tavro::host
