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

/// The detector, linked into the test, with the answers of the element: rectangles clipped
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

/// A face that a buffer carries.
struct Face {
  gint id;
  FaceRect rect;
};

inline std::vector<Face> facesOn(GstBuffer* buffer) {
  std::vector<Face> faces;
  gpointer state = nullptr;
  while (GstMeta* meta = gst_buffer_iterate_meta_filtered(
             buffer, &state, GST_VIDEO_REGION_OF_INTEREST_META_API_TYPE)) {
    const auto* roi = reinterpret_cast<const GstVideoRegionOfInterestMeta*>(meta);
    EXPECT_STREQ(g_quark_to_string(roi->roi_type), "face");
    const auto left = static_cast<int32_t>(roi->x);
    const auto top = static_cast<int32_t>(roi->y);
    faces.push_back(
        {roi->id,
         {left, top, left + static_cast<int32_t>(roi->w), top + static_cast<int32_t>(roi->h)}});
  }
  return faces;
}

inline std::vector<FaceRect> rectsOf(const std::vector<Face>& faces) {
  std::vector<FaceRect> rects;
  rects.reserve(faces.size());
  for (const Face& face : faces)
    rects.push_back(face.rect);
  return rects;
}

/// How a picture lies in a buffer.
struct Layout {
  const char* name = "I420";
  int32_t width = 0;
  int32_t height = 0;
  int32_t padding = 0;   ///< bytes behind every row, and before and behind every plane
  int32_t paddingV = 0;  ///< further bytes behind the rows of the V plane

  GstVideoFormat format() const { return gst_video_format_from_string(name); }
  GstVideoInfo info() const {
    GstVideoInfo info;
    gst_video_info_set_format(&info, format(), static_cast<guint>(width),
                              static_cast<guint>(height));
    return info;
  }
  std::string caps() const {
    return std::string("video/x-raw,framerate=25/1,format=") + name +
           ",width=" + std::to_string(width) + ",height=" + std::to_string(height);
  }
};

/// Calls `visit` with every sample of the mapped picture, its plane in the frame and its place
/// there.
template <typename Visit>
void visitSamples(const GstVideoFrame& picture, const I420Frame& frame, Visit&& visit) {
  for (int32_t plane = 0; plane < host::planeCount; ++plane) {
    auto* samples = static_cast<uint8_t*>(GST_VIDEO_FRAME_COMP_DATA(&picture, plane));
    for (int32_t y = 0; y < frame.planeHeight(plane); ++y)
      for (int32_t x = 0; x < frame.planeWidth(plane); ++x)
        visit(samples[y * GST_VIDEO_FRAME_COMP_STRIDE(&picture, plane) +
                      x * GST_VIDEO_FRAME_COMP_PSTRIDE(&picture, plane)],
              plane, y * frame.planeStride(plane) + x);
  }
}

/// The picture in a buffer, sample by sample.
inline I420Frame pictureIn(GstBuffer* buffer, const GstVideoInfo& info) {
  auto frame = I420Frame::allocate(GST_VIDEO_INFO_WIDTH(&info), GST_VIDEO_INFO_HEIGHT(&info));
  GstVideoFrame picture;
  if (gst_video_frame_map(&picture, &info, buffer, GST_MAP_READ) == FALSE) {
    ADD_FAILURE() << "a buffer without a picture";
    return std::move(*frame);
  }
  visitSamples(picture, *frame, [&](uint8_t sample, int32_t plane, int32_t place) {
    frame->writablePlane(plane)[place] = sample;
  });
  gst_video_frame_unmap(&picture);
  return std::move(*frame);
}

/// A buffer with the frame; the bytes around the samples are noise.
inline GstBuffer* makeBuffer(const I420Frame& frame, const Layout& layout) {
  GstVideoInfo info = layout.info();
  gsize size = 0;
  for (guint plane = 0; plane < GST_VIDEO_INFO_N_PLANES(&info); ++plane) {
    const int32_t rows = frame.planeHeight(static_cast<int32_t>(plane));
    const bool isInterleaved = GST_VIDEO_INFO_N_PLANES(&info) == 2 && plane == 1;
    info.stride[plane] = frame.planeWidth(static_cast<int32_t>(plane)) * (isInterleaved ? 2 : 1) +
                         layout.padding + (plane == 2 ? layout.paddingV : 0);
    info.offset[plane] = size + static_cast<gsize>(layout.padding);
    size = info.offset[plane] + static_cast<gsize>(info.stride[plane] * rows);
  }
  info.size = size;
  GstBuffer* buffer = gst_buffer_new_allocate(nullptr, size, nullptr);
  std::vector<uint8_t> bytes(size);
  for (size_t i = 0; i < size; ++i)
    bytes[i] = static_cast<uint8_t>(i * 7 ^ i >> 8);
  gst_buffer_fill(buffer, 0, bytes.data(), size);
  gst_buffer_add_video_meta_full(
      buffer, GST_VIDEO_FRAME_FLAG_NONE, layout.format(), static_cast<guint>(layout.width),
      static_cast<guint>(layout.height), GST_VIDEO_INFO_N_PLANES(&info), info.offset, info.stride);
  GstVideoFrame picture;
  EXPECT_TRUE(gst_video_frame_map(&picture, &info, buffer, GST_MAP_WRITE));
  visitSamples(picture, frame, [&](uint8_t& sample, int32_t plane, int32_t place) {
    sample = frame.planeData(plane)[place];
  });
  gst_video_frame_unmap(&picture);
  return buffer;
}

inline std::vector<uint8_t> bytesOf(GstBuffer* buffer) {
  std::vector<uint8_t> bytes(gst_buffer_get_size(buffer));
  gst_buffer_extract(buffer, 0, bytes.data(), bytes.size());
  return bytes;
}

template <typename T>
T propertyOf(GstElement* element, const char* name) {
  T value = {};
  g_object_get(element, name, &value, nullptr);
  return value;
}

}  // namespace tavro::test
