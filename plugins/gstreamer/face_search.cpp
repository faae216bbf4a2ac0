#include "plugins/gstreamer/face_search.h"

#include <algorithm>
#include <utility>

#include "host/core/frame_image.h"
#include "host/core/module_host.h"
#include "image/image_dispatch.h"
#include "image/scaler.h"

namespace tavro::gstreamer {

using host::I420Frame;

namespace {

const uint8_t* planeOf(const GstVideoFrame& picture, int plane) {
  return static_cast<const uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&picture, plane));
}

int32_t strideOf(const GstVideoFrame& picture, int plane) {
  return GST_VIDEO_FRAME_PLANE_STRIDE(&picture, plane);
}

bool splitChroma(const GstVideoFrame& picture, const I420Frame& target) {
  TavroRTC::FDModule::ImageDesc source;
  source.widths[0] = GST_VIDEO_FRAME_WIDTH(&picture);
  source.heights[0] = GST_VIDEO_FRAME_HEIGHT(&picture);
  for (int plane = 0; plane < 2; ++plane) {
    source.planes[plane] = static_cast<uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&picture, plane));
    source.strides[plane] = strideOf(picture, plane);
  }
  using TavroRTC::FDModule::ColorOp;
  return convertImage(source, host::imageOf(target), ColorOp::Nv12ToI420) == 0;
}

void copyPlanes(const GstVideoFrame& picture, I420Frame& target) {
  for (int plane = 0; plane < host::planeCount; ++plane)
    TavroRTC::FDModule::copyPlane(planeOf(picture, plane), strideOf(picture, plane),
                                  target.writablePlane(plane), target.planeStride(plane),
                                  target.planeWidth(plane), target.planeHeight(plane));
}

}  // namespace

bool FrameReader::isReadable(const GstVideoFrame& picture) {
  const GstVideoFormat format = GST_VIDEO_FRAME_FORMAT(&picture);
  const int32_t width = GST_VIDEO_FRAME_WIDTH(&picture);
  const int32_t chroma = host::planeExtent(1, width);
  if (strideOf(picture, 0) < width)
    return false;
  // The rows of the interleaved plane hold two samples for every two columns.
  if (format == GST_VIDEO_FORMAT_NV12)
    return strideOf(picture, 1) >= 2 * chroma;
  return format == GST_VIDEO_FORMAT_I420 && strideOf(picture, 1) >= chroma &&
         strideOf(picture, 2) >= chroma;
}

const I420Frame* FrameReader::read(const GstVideoFrame& picture) {
  if (!isReadable(picture))
    return nullptr;
  const bool isInterleaved = GST_VIDEO_FRAME_FORMAT(&picture) == GST_VIDEO_FORMAT_NV12;
  // The module knows one stride for both chroma planes.
  if (!isInterleaved && strideOf(picture, 1) == strideOf(picture, 2)) {
    lent_ = I420Frame::borrow(GST_VIDEO_FRAME_WIDTH(&picture), GST_VIDEO_FRAME_HEIGHT(&picture),
                              planeOf(picture, 0), strideOf(picture, 0), planeOf(picture, 1),
                              planeOf(picture, 2), strideOf(picture, 1));
    return lent_.has_value() ? &*lent_ : nullptr;
  }
  I420Frame* scratch = scratchFor(picture);
  if (scratch == nullptr)
    return nullptr;
  if (!isInterleaved)
    copyPlanes(picture, *scratch);
  else if (!splitChroma(picture, *scratch))
    return nullptr;
  return scratch;
}

/// The scratch frame at the picture's size; it is kept from picture to picture.
I420Frame* FrameReader::scratchFor(const GstVideoFrame& picture) {
  const int32_t width = GST_VIDEO_FRAME_WIDTH(&picture);
  const int32_t height = GST_VIDEO_FRAME_HEIGHT(&picture);
  if (!scratch_.has_value() || scratch_->width() != width || scratch_->height() != height)
    scratch_ = I420Frame::allocate(width, height);
  return scratch_.has_value() ? &*scratch_ : nullptr;
}

std::unique_ptr<FaceSearch> FaceSearch::open(const std::string& module,
                                             const host::SearchOptions& options, Failure& failure) {
  std::unique_ptr<FaceSearch> search(new FaceSearch);
  const auto acquire = [&](const std::string& file, std::string& name) {
    std::optional<SharedModule> shared = SharedModule::acquire(file, failure);
    if (!shared.has_value())
      return false;
    name = shared->name();
    search->modules_.push_back(std::move(*shared));
    return true;
  };
  host::SearchModules names;
  if (!acquire(module, names.whole))
    return nullptr;
  if (options.windows.hasWindows()) {
    const auto whole = host::findModule(names.whole);
    const std::string square =
        whole.has_value() ? host::squareDetectorBeside(whole->path) : std::string();
    if (!square.empty() && !acquire(square, names.square))
      return nullptr;
  }
  host::Status status;
  search->search_ = host::FrameSearch::open(std::move(names), options, status);
  if (status.ok())
    return search;
  failure = {false, "The face detector can't be prepared.", status.error};
  return nullptr;
}

host::Status FaceSearch::restart() {
  numbers_.forget();
  cover_ = {};
  return search_->restart();
}

host::Status FaceSearch::search(const GstVideoFrame& picture, double time) {
  rects_.clear();
  const I420Frame* frame = reader_.read(picture);
  host::Status status = frame != nullptr ? search_->search(*frame, rects_)
                                         : host::Status{"the picture can't be read"};
  const FaceRect all = {0, 0, GST_VIDEO_FRAME_WIDTH(&picture), GST_VIDEO_FRAME_HEIGHT(&picture)};
  numberFaces(all.right, all.bottom, time);
  unknown_ = status.ok() ? std::nullopt : std::optional(all);
  return status;
}

void FaceSearch::numberFaces(int32_t width, int32_t height, double time) {
  const std::span<const FaceRect> rects = rects_.view();
  const std::span<const int64_t> numbers = numbers_.update(rects, time);
  cover_.add(time, rects, numbers);
  cover_.forgetBefore(cover_.frames() - 1);
  std::vector<Face> visible;
  for (size_t i = 0; i < rects.size(); ++i) {
    Face face = {static_cast<gint>(numbers[i]), rects[i]};
    face.rect.left = std::clamp(face.rect.left, 0, width);
    face.rect.right = std::clamp(face.rect.right, 0, width);
    face.rect.top = std::clamp(face.rect.top, 0, height);
    face.rect.bottom = std::clamp(face.rect.bottom, 0, height);
    if (face.rect.left < face.rect.right && face.rect.top < face.rect.bottom)
      visible.push_back(face);
  }
  hasChanged_ = !std::equal(visible.begin(), visible.end(), faces_.begin(), faces_.end(),
                            [](const Face& a, const Face& b) { return a.id == b.id; });
  faces_ = std::move(visible);
}

std::vector<FaceRect> FaceSearch::covers() const {
  if (unknown_.has_value())
    return {*unknown_};
  return cover_.frames() > 0 ? cover_.at(cover_.frames() - 1) : std::vector<FaceRect>();
}

}  // namespace tavro::gstreamer
