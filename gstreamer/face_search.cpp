#include "gstreamer/face_search.h"

#include <algorithm>
#include <utility>

#include "host/core/module_host.h"
#include "modules/face_detection/fd_wrapper.h"

namespace tavro::gstreamer {

std::unique_ptr<FaceSearch> FaceSearch::open(const std::string& module, Failure& failure) {
  std::optional<SharedModule> shared = SharedModule::acquire(module, failure);
  if (!shared.has_value())
    return nullptr;
  std::unique_ptr<FaceSearch> search(new FaceSearch(std::move(*shared)));
  const host::Status status = host::createInstance(search->module_.name(), &search->instance_);
  if (!status.ok() || !search->instance_->init()) {
    failure = {false, "The face detector can't be prepared.", status.error};
    return nullptr;
  }
  return search;
}

FaceSearch::~FaceSearch() {
  // Nobody is left to tell about a failure; the module then stays loaded.
  if (instance_ != nullptr)
    static_cast<void>(host::destroyInstance(instance_));
}

bool FaceSearch::restart() {
  numbers_.forget();
  if (!isFresh_ && !instance_->init())
    return false;
  isFresh_ = true;
  return true;
}

bool FaceSearch::search(const GstVideoFrame& picture, double time) {
  rects_.clear();
  isFresh_ = false;
  const host::I420Frame* frame = reader_.read(picture);
  const bool done = frame != nullptr && instance_->execute(frame, rects_.sequence());
  if (!done)
    rects_.clear();
  numberFaces(GST_VIDEO_FRAME_WIDTH(&picture), GST_VIDEO_FRAME_HEIGHT(&picture), time);
  return done;
}

void FaceSearch::numberFaces(int32_t width, int32_t height, double time) {
  const std::span<const FaceRect> rects = rects_.view();
  const std::span<const int64_t> numbers = numbers_.update(rects, time);
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

}  // namespace tavro::gstreamer
