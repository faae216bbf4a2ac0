#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>

#include "host/app/annotation.h"
#include "host/app/plain/picture_file.h"
#include "host/app/process.h"

namespace tavro::host {

namespace {

struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using FileHandle = std::unique_ptr<std::FILE, FileCloser>;

class FileSink : public FrameSink {
 public:
  explicit FileSink(FileHandle file) : file_(std::move(file)) {}

  bool finish(std::string& error) override {
    if (std::fclose(file_.release()) == 0)
      return true;
    error = std::strerror(errno);
    return false;
  }

 protected:
  bool put(const void* bytes, size_t size, std::string& error) {
    if (std::fwrite(bytes, 1, size, file_.get()) == size)
      return true;
    error = std::strerror(errno);
    return false;
  }

 private:
  FileHandle file_;
};

class PictureSink final : public FileSink {
 public:
  using FileSink::FileSink;

  bool write(const I420Frame& frame, double /*time*/, std::string& error) override {
    if (std::exchange(written_, true))
      return true;
    const std::vector<uint8_t> file = encodePng(frame);
    if (!file.empty())
      return put(file.data(), file.size(), error);
    error = "the picture can't be encoded";
    return false;
  }

 private:
  bool written_ = false;
};

/// A Y4M stream, which holds pictures of one size only.
class StreamSink final : public FileSink {
 public:
  StreamSink(FileHandle file, const SinkFormat& format)
      : FileSink(std::move(file)), format_(format) {}

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
    bool written = put(head.data(), head.size(), error);
    for (int32_t plane = 0; plane < planeCount; ++plane)
      for (int32_t y = 0; written && y < frame.planeHeight(plane); ++y)
        written = put(frame.planeData(plane) + ptrdiff_t{y} * frame.planeStride(plane),
                      static_cast<size_t>(frame.planeWidth(plane)), error);
    return written;
  }

 private:
  SinkFormat format_;
  bool started_ = false;
};

FileHandle openTarget(const std::string& path, std::string& error) {
  FileHandle file(openFile(path, "wb"));
  if (file == nullptr)
    error = std::strerror(errno);
  return file;
}

}  // namespace

std::unique_ptr<FrameSink> openPictureSink(const std::string& path, const SinkFormat& /*format*/,
                                           std::string& error) {
  FileHandle file = openTarget(path, error);
  return file != nullptr ? std::make_unique<PictureSink>(std::move(file)) : nullptr;
}

std::unique_ptr<FrameSink> openVideoSink(const std::string& path, const SinkFormat& format,
                                         std::string& error) {
  FileHandle file = openTarget(path, error);
  return file != nullptr ? std::make_unique<StreamSink>(std::move(file), format) : nullptr;
}

}  // namespace tavro::host
