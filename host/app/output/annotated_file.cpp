// --annotate: the pictures as they are shown, in a video file, or the first of them in a PNG.

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <utility>

#include "host/app/output/frame_output.h"
#include "host/app/platform/media.h"
#include "host/app/platform/target_file.h"

namespace tavro::host {

namespace {

class AnnotatedFile final : public FrameOutput {
 public:
  AnnotatedFile(std::string path, std::unique_ptr<FrameSink> sink)
      : path_(std::move(path)), sink_(std::move(sink)) {}

  bool take(const AnalysedFrame& frame, std::string& error) override {
    if (++frames_ > 1 && takesOneFrame())
      return true;
    return sink_->write(*frame.shown, frame.result.time, error) || explain(error);
  }

  bool finish(double /*endTime*/, std::string& error) override {
    if (!sink_->finish(error))
      return explain(error);
    if (frames_ > 1 && takesOneFrame())
      std::fprintf(stderr, "tavro-fd: %s holds the first of %s; a video holds all\n", path_.c_str(),
                   counted(frames_, "frame").c_str());
    return true;
  }

 private:
  bool takesOneFrame() const { return hasExtension(path_, ".png"); }

  bool explain(std::string& error) const {
    error = path_ + ": " + error;
    return false;
  }

  std::string path_;
  std::unique_ptr<FrameSink> sink_;
  int64_t frames_ = 0;
};

/// Writes the first frame; later ones are ignored.
class PictureSink final : public FrameSink {
 public:
  PictureSink(TargetFile file, int32_t colorMatrix)
      : file_(std::move(file)), colorMatrix_(colorMatrix) {}

  bool write(const I420Frame& frame, double /*time*/, std::string& error) override {
    if (std::exchange(written_, true))
      return true;
    const std::vector<uint8_t> bytes = encodePng(frame, colorMatrix_);
    if (bytes.empty()) {
      error = "the picture can't be encoded";
      return false;
    }
    return file_.put(bytes.data(), bytes.size(), error);
  }

  bool finish(std::string& error) override { return file_.close(error); }

 private:
  TargetFile file_;
  int32_t colorMatrix_;
  bool written_ = false;
};

std::unique_ptr<FrameSink> openPictureSink(const std::string& path, const SinkFormat& format,
                                           std::string& error) {
  auto file = TargetFile::open(path, error);
  return file.has_value() ? std::make_unique<PictureSink>(std::move(*file), format.colorMatrix)
                          : nullptr;
}

/// The sink for the file's extension.
std::unique_ptr<FrameSink> openSink(const std::string& path, const SinkFormat& format,
                                    std::string& error) {
  return hasExtension(path, ".png") ? openPictureSink(path, format, error)
                                    : openVideoSink(path, format, error);
}

}  // namespace

bool hasExtension(const std::string& path, const std::string& extension) {
  const auto sameLetter = [](char a, char b) {
    return std::tolower(static_cast<unsigned char>(a)) ==
           std::tolower(static_cast<unsigned char>(b));
  };
  return path.size() > extension.size() &&
         std::equal(extension.rbegin(), extension.rend(), path.rbegin(), sameLetter);
}

std::unique_ptr<FrameOutput> openAnnotatedFile(const OutputRequest& request, std::string& error) {
  const std::string& path = request.options.annotate;
  auto sink = openSink(path, request.format, error);
  if (sink == nullptr) {
    error = path + ": " + error;
    return nullptr;
  }
  return std::make_unique<AnnotatedFile>(path, std::move(sink));
}

}  // namespace tavro::host
