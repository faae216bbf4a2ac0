#include "training/native/detector_library.h"

#include <algorithm>
#include <memory>
#include <new>
#include <vector>

#include "engine/model/model_tables.h"
#include "host/core/face_merging.h"
#include "host/core/window_plan.h"
#include "image/image_dispatch.h"
#include "modules/face_detection/frame_analysis.h"
#include "modules/face_detection/network_input.h"

namespace fd = TavroRTC::FDModule;

struct TavroDetector {
  fd::FrameAnalysis analysis;
};

namespace {

constexpr int32_t largestSide = 32768;

bool isUsable(const TavroFrame* frame) {
  return frame != nullptr && frame->y != nullptr && frame->u != nullptr && frame->v != nullptr &&
         frame->width >= 1 && frame->width <= largestSide && frame->height >= 1 &&
         frame->height <= largestSide;
}

fd::FrameView viewOf(const TavroFrame& frame) {
  return {.y = frame.y,
          .u = frame.u,
          .v = frame.v,
          .width = frame.width,
          .height = frame.height,
          .strideY = frame.width,
          .strideUV = fd::chromaSize(frame.width)};
}

/// Memory running out must not throw into a caller of another language.
template <typename Work>
int32_t guarded(Work work) noexcept {
  try {
    return work();
  } catch (const std::bad_alloc&) {
    return -1;
  }
}

}  // namespace

int32_t tavroConvertPicture(const uint8_t* picture, int32_t stride, const TavroFrame* frame) {
  constexpr int32_t bytesPerPixel = 3;
  if (picture == nullptr || !isUsable(frame) || stride < frame->width * bytesPerPixel)
    return -1;
  fd::ImageDesc source;
  source.planes[0] = const_cast<uint8_t*>(picture);
  source.widths[0] = frame->width;
  source.heights[0] = frame->height;
  source.strides[0] = stride;
  source.format = fd::ImageFormat::Bgr24;
  const int32_t chromaWidth = fd::chromaSize(frame->width);
  const int32_t chromaHeight = fd::chromaSize(frame->height);
  const fd::ImageDesc target{.planes = {frame->y, frame->u, frame->v},
                             .widths = {frame->width, chromaWidth, chromaWidth},
                             .heights = {frame->height, chromaHeight, chromaHeight},
                             .strides = {frame->width, chromaWidth, chromaWidth},
                             .format = fd::ImageFormat::I420};
  return guarded([&] { return fd::convertImage(source, target, fd::ColorOp::Bgr24ToI420); });
}

int32_t tavroPrepareInput(const TavroFrame* frame, uint8_t* picture) {
  if (!isUsable(frame) || picture == nullptr)
    return -1;
  return guarded([&] {
    std::vector<uint8_t> planar(fd::planarInputSize);
    return fd::prepareNetworkInput(viewOf(*frame), planar.data(), picture) ? 0 : -1;
  });
}

TavroDetector* tavroCreateDetector() {
  TavroDetector* made = nullptr;
  guarded([&] {
    auto detector = std::make_unique<TavroDetector>();
    if (detector->analysis.init() && detector->analysis.picture() != nullptr)
      made = detector.release();
    return 0;
  });
  return made;
}

void tavroReleaseDetector(TavroDetector* detector) {
  delete detector;
}

int32_t tavroRunNetwork(TavroDetector* detector, const uint8_t* picture, float* scores,
                        float* offsets) {
  if (detector == nullptr || picture == nullptr || scores == nullptr || offsets == nullptr)
    return -1;
  return guarded([&] {
    std::copy_n(picture, fd::packedInputSize, detector->analysis.picture());
    fd::NetworkOutput output;
    if (!detector->analysis.runNetwork(output))
      return -1;
    std::copy_n(output.scores, fd::priorCount * 2, scores);
    std::copy_n(output.boxes, fd::priorCount * 4, offsets);
    return 0;
  });
}

int32_t tavroDetect(TavroDetector* detector, const TavroFrame* frame, float threshold,
                    int32_t keepLimit, TavroBox* boxes, int32_t capacity) {
  if (detector == nullptr || !isUsable(frame) || keepLimit < 0 || boxes == nullptr || capacity < 0)
    return -1;
  return guarded([&] {
    const auto kept = detector->analysis.findBoxes(viewOf(*frame), threshold, keepLimit);
    if (!kept.has_value())
      return -1;
    const auto count = std::min(kept->size(), static_cast<size_t>(capacity));
    std::transform(kept->begin(), kept->begin() + static_cast<ptrdiff_t>(count), boxes,
                   [](const fd::Detection& box) {
                     return TavroBox{box.x1, box.y1, box.x2, box.y2, box.score};
                   });
    return static_cast<int32_t>(count);
  });
}

int32_t tavroPlanWindows(int32_t width, int32_t height, int32_t smallestFace, int32_t mostWindows,
                         TavroWindow* windows, int32_t capacity) {
  if (width < 1 || width > largestSide || height < 1 || height > largestSide || smallestFace < 0 ||
      mostWindows < 1 || windows == nullptr || capacity < 0)
    return -1;
  return guarded([&] {
    const auto plan = tavro::host::planWindows(
        width, height, {.smallestFace = smallestFace, .mostWindows = mostWindows});
    const auto count = std::min(plan.windows.size(), static_cast<size_t>(capacity));
    std::transform(plan.windows.begin(), plan.windows.begin() + static_cast<ptrdiff_t>(count),
                   windows, [](const tavro::host::Window& window) {
                     return TavroWindow{window.x, window.y, window.width, window.height};
                   });
    return static_cast<int32_t>(plan.windows.size());
  });
}

int32_t tavroGroupBoxes(int32_t width, int32_t height, const TavroWindow* windows,
                        int32_t windowCount, const TavroBox* boxes, const int32_t* windowOf,
                        int32_t count, int32_t* best) {
  if (windows == nullptr || windowCount < 0 || boxes == nullptr || windowOf == nullptr ||
      count < 0 || best == nullptr)
    return -1;
  return guarded([&] {
    std::vector<tavro::host::Window> seenThrough;
    seenThrough.reserve(static_cast<size_t>(windowCount));
    for (int32_t i = 0; i < windowCount; ++i)
      seenThrough.push_back({windows[i].x, windows[i].y, windows[i].width, windows[i].height});
    std::vector<tavro::host::Sighting> sightings;
    for (int32_t i = 0; i < count; ++i) {
      if (windowOf[i] < 0 || windowOf[i] >= windowCount)
        return -1;
      const auto pixel = [](float edge) { return static_cast<int32_t>(edge); };
      sightings.push_back(
          {.face = {pixel(boxes[i].x1), pixel(boxes[i].y1), pixel(boxes[i].x2), pixel(boxes[i].y2)},
           .window = static_cast<size_t>(windowOf[i])});
    }
    for (const auto& group : tavro::host::sameFaces(sightings, seenThrough, width, height)) {
      for (const size_t index : group)
        best[index] = static_cast<int32_t>(group.front());
    }
    return 0;
  });
}

const uint8_t* tavroWeights() {
  return tavroModelWeights;
}
