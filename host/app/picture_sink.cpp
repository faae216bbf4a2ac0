// The sink for a single picture, which the build's media folder encodes.

#include <utility>

#include "host/app/annotation.h"
#include "host/app/png.h"
#include "host/app/target_file.h"

namespace tavro::host {

namespace {

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

}  // namespace

std::unique_ptr<FrameSink> openPictureSink(const std::string& path, const SinkFormat& format,
                                           std::string& error) {
  auto file = TargetFile::open(path, error);
  return file.has_value() ? std::make_unique<PictureSink>(std::move(*file), format.colorMatrix)
                          : nullptr;
}

}  // namespace tavro::host
