#include <utility>

#include "host/app/output/frame_sink.h"
#include "host/app/platform/target_file.h"

namespace tavro::host {

namespace {

/// A Y4M stream, which holds pictures of one size only.
class StreamSink final : public FrameSink {
 public:
  StreamSink(TargetFile file, const SinkFormat& format) : file_(std::move(file)), format_(format) {}

  bool write(const I420Frame& frame, double /*time*/, std::string& error) override {
    if (frame.width() != format_.width || frame.height() != format_.height) {
      error = "the size of the pictures has changed";
      return false;
    }
    std::string head;
    if (!std::exchange(started_, true))
      head = "YUV4MPEG2 W" + std::to_string(format_.width) + " H" + std::to_string(format_.height) +
             " F" + std::to_string(format_.frameRate.numerator) + ":" +
             std::to_string(format_.frameRate.denominator) + " C420jpeg\n";
    head += "FRAME\n";
    bool written = file_.put(head.data(), head.size(), error);
    for (int32_t plane = 0; plane < planeCount; ++plane)
      for (int32_t y = 0; written && y < frame.planeHeight(plane); ++y)
        written = file_.put(frame.planeData(plane) + ptrdiff_t{y} * frame.planeStride(plane),
                            static_cast<size_t>(frame.planeWidth(plane)), error);
    return written;
  }

  bool finish(std::string& error) override { return file_.close(error); }

 private:
  TargetFile file_;
  SinkFormat format_;
  bool started_ = false;
};

}  // namespace

std::unique_ptr<FrameSink> openVideoSink(const std::string& path, const SinkFormat& format,
                                         std::string& error) {
  auto file = TargetFile::open(path, error);
  return file.has_value() ? std::make_unique<StreamSink>(std::move(*file), format) : nullptr;
}

}  // namespace tavro::host
