// --annotate: the pictures as they are shown, in a picture or video file.

#include "host/app/output/frame_output.h"
#include "host/app/stream_damage.h"

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

}  // namespace

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
