// --crop-faces: a folder with one JPEG for each face, from the frame that shows it best.

#include <filesystem>
#include <system_error>

#include "host/app/best_faces.h"
#include "host/app/target_file.h"
#include "host/core/utf8_path.h"

namespace tavro::host {

namespace {

class FacePictures final : public FrameOutput {
 public:
  FacePictures(std::string folder, int32_t colorMatrix)
      : folder_(std::move(folder)), faces_(0, colorMatrix) {}

  bool take(const AnalysedFrame& frame, std::string& error) override {
    if (!frame.analysed || faces_.add(frame.picture, frame.result))
      return true;
    error = folder_ + ": a picture of a face can't be made";
    return false;
  }

  bool finish(double /*endTime*/, std::string& error) override {
    for (const auto& [number, story] : faces_.stories()) {
      if (story.jpeg.empty())
        continue;
      char name[64];
      std::snprintf(name, sizeof name, "face-%04lld.jpg", static_cast<long long>(number));
      const std::string path = utf8FromPath(pathFromUtf8(folder_) / name);
      auto file = TargetFile::open(path, error);
      if (!file.has_value() || !file->put(story.jpeg.data(), story.jpeg.size(), error) ||
          !file->close(error)) {
        error = path + ": the picture can't be written";
        return false;
      }
    }
    return true;
  }

 private:
  std::string folder_;
  BestFaces faces_;
};

}  // namespace

std::unique_ptr<FrameOutput> openFacePictures(const OutputRequest& request, std::string& error) {
  const std::string& folder = request.options.cropFaces;
  std::error_code failure;
  std::filesystem::create_directories(pathFromUtf8(folder), failure);
  if (!std::filesystem::is_directory(pathFromUtf8(folder), failure)) {
    error = folder + ": the folder can't be made";
    return nullptr;
  }
  return std::make_unique<FacePictures>(folder, request.format.colorMatrix);
}

}  // namespace tavro::host
