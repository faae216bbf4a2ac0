#include "host/app/output/best_faces.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <utility>

#include "host/app/output/frame_output.h"
#include "host/app/platform/media.h"
#include "host/app/platform/target_file.h"
#include "host/core/utf8_path.h"

namespace tavro::host {

namespace {

using TavroRTC::FDModule::FaceRect;

// A new picture has to be better by this: a face that comes closer isn't encoded at every step.
constexpr double clearlyBetter = 1.05;

struct Area {
  int64_t left, top, right, bottom;

  bool isEmpty() const { return right <= left || bottom <= top; }
  double size() const {
    return static_cast<double>(right - left) * static_cast<double>(bottom - top);
  }
};

Area inside(const FaceRect& face, const I420Frame& picture) {
  const auto clip = [](int64_t value, int64_t limit) {
    return std::clamp<int64_t>(value, 0, limit);
  };
  return {clip(face.left, picture.width()), clip(face.top, picture.height()),
          clip(face.right, picture.width()), clip(face.bottom, picture.height())};
}

/// The mean of `factor` x `factor` samples for each sample of `target`, from the corner (left, top)
/// of the picture's plane on. Beyond the plane's end its last samples are repeated.
void reduce(const I420Frame& picture, int32_t plane, int64_t left, int64_t top, int64_t factor,
            I420Frame& target) {
  const int64_t lastX = picture.planeWidth(plane) - 1;
  const int64_t lastY = picture.planeHeight(plane) - 1;
  const int64_t count = factor * factor;
  for (int64_t y = 0; y < target.planeHeight(plane); ++y)
    for (int64_t x = 0; x < target.planeWidth(plane); ++x) {
      int64_t sum = count / 2;
      for (int64_t i = 0; i < count; ++i) {
        const int64_t row = std::min(lastY, top + y * factor + i / factor);
        const int64_t column = std::min(lastX, left + x * factor + i % factor);
        sum += picture.planeData(plane)[row * picture.planeStride(plane) + column];
      }
      target.writablePlane(plane)[y * target.planeStride(plane) + x] =
          static_cast<uint8_t>(sum / count);
    }
}

/// --crop-faces: a folder with one JPEG for each face.
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
      std::snprintf(name, sizeof name, facePicturePattern, static_cast<long long>(number));
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

double faceQuality(const I420Frame& picture, const FaceRect& face) {
  const Area area = inside(face, picture);
  if (area.isEmpty())
    return 0.0;
  // Differences over a fixed part of the face, so that sharpness doesn't depend on size.
  const int64_t step = std::max<int64_t>(1, (area.bottom - area.top) / 32);
  int64_t sum = 0;
  int64_t count = 0;
  for (int64_t y = area.top; y < area.bottom; y += step) {
    const uint8_t* row = picture.planeData(0) + y * picture.planeStride(0);
    for (int64_t x = area.left; x + step < area.right; x += step, ++count)
      sum += std::abs(row[x + step] - row[x]);
  }
  const double sharpness = count > 0 ? static_cast<double>(sum) / static_cast<double>(count) : 0.0;
  const double whole = Area{face.left, face.top, face.right, face.bottom}.size();
  const double part = std::min(1.0, area.size() / whole);
  return part * part * std::sqrt(area.size()) * (1.0 + sharpness);
}

std::optional<I420Frame> cutOut(const I420Frame& picture, const FaceRect& face,
                                int32_t largestSide) {
  if (inside(face, picture).isEmpty())
    return std::nullopt;
  const int64_t longest =
      std::max(int64_t{face.right} - face.left, int64_t{face.bottom} - face.top);
  const int64_t side = longest + longest / 2;
  // Even edges, so that the chroma is cut where the luma is.
  const auto span = [side](int64_t middle, int64_t limit) {
    const int64_t size =
        std::max<int64_t>(std::min(side, limit) & ~int64_t{1}, std::min<int64_t>(limit, 2));
    const int64_t first = std::clamp<int64_t>(middle - size / 2, 0, limit - size) & ~int64_t{1};
    return std::pair{first, size};
  };
  const auto [left, width] = span((int64_t{face.left} + face.right) / 2, picture.width());
  const auto [top, height] = span((int64_t{face.top} + face.bottom) / 2, picture.height());
  const int64_t limit = largestSide > 0 ? largestSide : std::max(width, height);
  const int64_t factor = (std::max(width, height) + limit - 1) / limit;
  const auto part = [factor](int64_t size) {
    return static_cast<int32_t>(std::max<int64_t>(1, size / factor));
  };
  auto cut = I420Frame::allocate(part(width), part(height));
  for (int32_t plane = 0; cut.has_value() && plane < planeCount; ++plane)
    reduce(picture, plane, plane == 0 ? left : left / 2, plane == 0 ? top : top / 2, factor, *cut);
  return cut;
}

bool BestFaces::add(const I420Frame& picture, const FrameResult& result) {
  for (size_t i = 0; i < result.faces.size(); ++i) {
    FaceStory& story = stories_[result.faceNumbers[i]];
    if (story.frames++ == 0)
      story.firstSeen = result.time;
    story.lastSeen = result.time;
    if (!withPictures_)
      continue;
    const double quality = faceQuality(picture, result.faces[i]);
    if (quality <= story.quality * clearlyBetter)
      continue;
    const auto cut = cutOut(picture, result.faces[i], largestSide_);
    if (!cut.has_value())
      return false;
    story.jpeg = encodeJpeg(*cut, colorMatrix_);
    if (story.jpeg.empty())
      return false;
    story.quality = quality;
    story.bestTime = result.time;
  }
  return true;
}

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
