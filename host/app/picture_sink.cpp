// The sink for a single picture, which the build's media folder encodes.

#include <cerrno>
#include <cstring>
#include <utility>

#include "host/app/annotation.h"
#include "host/app/png.h"
#include "host/app/process.h"

namespace tavro::host {

namespace {

class PictureSink final : public FrameSink {
 public:
  PictureSink(StreamHandle file, int32_t colorMatrix)
      : file_(std::move(file)), colorMatrix_(colorMatrix) {}

  bool write(const I420Frame& frame, double /*time*/, std::string& error) override {
    if (std::exchange(written_, true))
      return true;
    const std::vector<uint8_t> bytes = encodePng(frame, colorMatrix_);
    if (bytes.empty()) {
      error = "the picture can't be encoded";
      return false;
    }
    return succeeded(std::fwrite(bytes.data(), 1, bytes.size(), file_.get()) == bytes.size(),
                     error);
  }

  bool finish(std::string& error) override {
    return succeeded(std::fclose(file_.release()) == 0, error);
  }

 private:
  static bool succeeded(bool done, std::string& error) {
    if (!done)
      error = std::strerror(errno);
    return done;
  }

  StreamHandle file_;
  int32_t colorMatrix_;
  bool written_ = false;
};

}  // namespace

std::unique_ptr<FrameSink> openPictureSink(const std::string& path, const SinkFormat& format,
                                           std::string& error) {
  StreamHandle file(openFile(path, "wb"));
  if (file == nullptr) {
    error = std::strerror(errno);
    return nullptr;
  }
  return std::make_unique<PictureSink>(std::move(file), format.colorMatrix);
}

}  // namespace tavro::host
