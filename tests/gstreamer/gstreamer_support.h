#pragma once

// GStreamer for tests, with nothing of the user's: the plugins are the project's own and the few
// stock ones that the build has linked into a folder, and the registry is a file of the build tree.
// What the element says is compared with a detector of the test's own, which gets the same pictures
// as plain I420 frames.

#include <gst/gst.h>
#include <gst/video/video.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "gstreamer/face_message.h"
#include "host/core/face_rects.h"
#include "host/core/i420_frame.h"
#include "modules/face_detection/fd_wrapper.h"
#include "tests/support/frames.h"
#include "tests/support/portrait.h"
#include "tests/support/print_face_rect.h"

namespace tavro::test {

using host::I420Frame;
using TavroRTC::FDModule::FaceRect;

inline void startGStreamer() {
  for (const auto& [name, value] : {std::pair{"GST_REGISTRY_1_0", TAVRO_TEST_FOLDER "/registry"},
                                    {"GST_REGISTRY_FORK", "no"},  // nor load the plugins elsewhere
                                    {"GST_PLUGIN_PATH_1_0", TAVRO_PLUGIN_FOLDER},
                                    {"GST_PLUGIN_SYSTEM_PATH_1_0", TAVRO_STOCK_PLUGIN_FOLDER},
                                    {"XDG_RUNTIME_DIR", TAVRO_TEST_FOLDER}})  // generated code
    setenv(name, value, 1);
  g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_FATAL_MASK | G_LOG_LEVEL_CRITICAL));
  gst_init(nullptr, nullptr);
}

class GStreamerTest : public testing::Test {
 protected:
  static void SetUpTestSuite() { startGStreamer(); }
};

template <auto release>
struct Releaser {
  template <typename T>
  void operator()(T* object) const {
    release(object);
  }
};
using ElementHandle = std::unique_ptr<GstElement, Releaser<gst_object_unref>>;
using BufferHandle = std::unique_ptr<GstBuffer, Releaser<gst_buffer_unref>>;
using BusHandle = std::unique_ptr<GstBus, Releaser<gst_object_unref>>;
using CapsHandle = std::unique_ptr<GstCaps, Releaser<gst_caps_unref>>;
using MessageHandle = std::unique_ptr<GstMessage, Releaser<gst_message_unref>>;

/// The detector, linked into the test, with the answers that the element gives: rectangles clipped
/// to the picture.
class Detector {
 public:
  Detector() { EXPECT_TRUE(wrapper_.init()); }

  std::vector<FaceRect> detect(const I420Frame& frame) {
    EXPECT_TRUE(wrapper_.execute(&frame, rects_.sequence()));
    std::vector<FaceRect> faces;
    for (const FaceRect& rect : rects_.view())
      faces.push_back({std::max(rect.left, 0), std::max(rect.top, 0),
                       std::min(rect.right, frame.width()), std::min(rect.bottom, frame.height())});
    return faces;
  }

 private:
  TavroRTC::FDModule::FDWrapper wrapper_;
  host::FaceRects rects_;
};

/// The faces that a buffer bears.
inline std::vector<gstreamer::Face> regionsOf(GstBuffer* buffer) {
  std::vector<gstreamer::Face> regions;
  gpointer state = nullptr;
  while (GstMeta* meta = gst_buffer_iterate_meta_filtered(
             buffer, &state, GST_VIDEO_REGION_OF_INTEREST_META_API_TYPE)) {
    const auto* roi = reinterpret_cast<const GstVideoRegionOfInterestMeta*>(meta);
    EXPECT_STREQ(g_quark_to_string(roi->roi_type), "face");
    const auto left = static_cast<int32_t>(roi->x);
    const auto top = static_cast<int32_t>(roi->y);
    regions.push_back(
        {roi->id,
         {left, top, left + static_cast<int32_t>(roi->w), top + static_cast<int32_t>(roi->h)}});
  }
  return regions;
}

inline std::vector<FaceRect> rectsOf(const std::vector<gstreamer::Face>& faces) {
  std::vector<FaceRect> rects;
  rects.reserve(faces.size());
  for (const gstreamer::Face& face : faces)
    rects.push_back(face.rect);
  return rects;
}
inline std::vector<FaceRect> rectsOf(GstBuffer* buffer) {
  return rectsOf(regionsOf(buffer));
}

/// How a picture lies in a buffer.
struct Layout {
  const char* name = "I420";
  int32_t width = 0;
  int32_t height = 0;
  int32_t padding = 0;   ///< bytes behind every row, and before and behind every plane
  int32_t paddingV = 0;  ///< further bytes behind the rows of the V plane

  GstVideoFormat format() const { return gst_video_format_from_string(name); }
  std::string caps() const {
    return std::string("video/x-raw,framerate=25/1,format=") + name +
           ",width=" + std::to_string(width) + ",height=" + std::to_string(height);
  }
};

/// A buffer with the frame; the bytes around the samples are noise.
inline GstBuffer* makeBuffer(const I420Frame& frame, const Layout& layout) {
  const bool interleaved = layout.format() == GST_VIDEO_FORMAT_NV12;
  const guint planes = interleaved ? 2 : 3;
  gsize offsets[GST_VIDEO_MAX_PLANES] = {};
  gint strides[GST_VIDEO_MAX_PLANES] = {};
  gsize size = 0;
  for (guint plane = 0; plane < planes; ++plane) {
    const auto index = static_cast<int32_t>(plane);
    strides[plane] = frame.planeWidth(index) * (interleaved && plane == 1 ? 2 : 1) +
                     layout.padding + (plane == 2 ? layout.paddingV : 0);
    offsets[plane] = size + static_cast<gsize>(layout.padding);
    size = offsets[plane] + static_cast<gsize>(strides[plane] * frame.planeHeight(index));
  }
  std::vector<uint8_t> bytes(size);
  for (size_t i = 0; i < size; ++i)
    bytes[i] = static_cast<uint8_t>(i * 7 ^ i >> 8);
  for (int32_t component = 0; component < host::planeCount; ++component) {
    const int32_t plane = interleaved ? std::min(component, 1) : component;
    const int32_t step = interleaved && component > 0 ? 2 : 1;
    const int32_t first = interleaved && component == 2 ? 1 : 0;
    for (int32_t y = 0; y < frame.planeHeight(component); ++y)
      for (int32_t x = 0; x < frame.planeWidth(component); ++x)
        bytes[offsets[plane] + static_cast<size_t>(y * strides[plane] + x * step + first)] =
            frame.planeData(component)[y * frame.planeStride(component) + x];
  }
  GstBuffer* buffer = gst_buffer_new_allocate(nullptr, size, nullptr);
  gst_buffer_fill(buffer, 0, bytes.data(), size);
  gst_buffer_add_video_meta_full(buffer, GST_VIDEO_FRAME_FLAG_NONE, layout.format(),
                                 static_cast<guint>(layout.width),
                                 static_cast<guint>(layout.height), planes, offsets, strides);
  return buffer;
}

inline std::vector<uint8_t> bytesOf(GstBuffer* buffer) {
  std::vector<uint8_t> bytes(gst_buffer_get_size(buffer));
  gst_buffer_extract(buffer, 0, bytes.data(), bytes.size());
  return bytes;
}

/// The picture of a mapped frame, sample by sample.
inline I420Frame copyOf(const GstVideoFrame& picture) {
  auto frame =
      I420Frame::allocate(GST_VIDEO_FRAME_WIDTH(&picture), GST_VIDEO_FRAME_HEIGHT(&picture));
  for (int32_t plane = 0; plane < host::planeCount; ++plane) {
    const auto* samples = static_cast<const uint8_t*>(GST_VIDEO_FRAME_COMP_DATA(&picture, plane));
    for (int32_t y = 0; y < frame->planeHeight(plane); ++y)
      for (int32_t x = 0; x < frame->planeWidth(plane); ++x)
        frame->writablePlane(plane)[y * frame->planeStride(plane) + x] =
            samples[y * GST_VIDEO_FRAME_COMP_STRIDE(&picture, plane) +
                    x * GST_VIDEO_FRAME_COMP_PSTRIDE(&picture, plane)];
  }
  return std::move(*frame);
}

template <typename T>
T propertyOf(GstElement* element, const char* name) {
  T value = {};
  g_object_get(element, name, &value, nullptr);
  return value;
}

}  // namespace tavro::test
