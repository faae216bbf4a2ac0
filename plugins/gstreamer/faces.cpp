#include "plugins/gstreamer/faces.h"

#include <array>
#include <vector>

#include "host/core/face_drawing.h"

namespace tavro::gstreamer {

namespace {

/// Corners as a place and a size, which is what GStreamer's regions have.
struct Box {
  explicit Box(const FaceRect& rect)
      : x(static_cast<guint>(rect.left)),
        y(static_cast<guint>(rect.top)),
        width(static_cast<guint>(rect.right - rect.left)),
        height(static_cast<guint>(rect.bottom - rect.top)) {}
  guint x, y, width, height;
};

std::array<host::Component, host::planeCount> componentsOf(GstVideoFrame& picture) {
  std::array<host::Component, host::planeCount> components;
  for (int i = 0; i < host::planeCount; ++i)
    components[static_cast<size_t>(i)] = {
        static_cast<uint8_t*>(GST_VIDEO_FRAME_COMP_DATA(&picture, i)),
        GST_VIDEO_FRAME_COMP_STRIDE(&picture, i), GST_VIDEO_FRAME_COMP_PSTRIDE(&picture, i)};
  return components;
}

}  // namespace

GstStructure* faceStructure(const SearchedPicture& picture, std::span<const Face> faces) {
  GstStructure* message = gst_structure_new(
      faceMessageName, "frame", G_TYPE_UINT64, picture.frame, "timestamp", G_TYPE_UINT64,
      picture.timestamp, "stream-time", G_TYPE_UINT64, picture.streamTime, "running-time",
      G_TYPE_UINT64, picture.runningTime, "duration", G_TYPE_UINT64, picture.duration, "width",
      G_TYPE_INT, picture.width, "height", G_TYPE_INT, picture.height, nullptr);
  GValue list = G_VALUE_INIT;
  g_value_init(&list, GST_TYPE_LIST);
  for (const Face& face : faces) {
    const Box box(face.rect);
    GValue value = G_VALUE_INIT;
    g_value_init(&value, GST_TYPE_STRUCTURE);
    g_value_take_boxed(
        &value, gst_structure_new("face", "id", G_TYPE_INT, face.id, "x", G_TYPE_UINT, box.x, "y",
                                  G_TYPE_UINT, box.y, "width", G_TYPE_UINT, box.width, "height",
                                  G_TYPE_UINT, box.height, nullptr));
    gst_value_list_append_and_take_value(&list, &value);
  }
  gst_structure_take_value(message, "faces", &list);
  return message;
}

void addFaceRegions(GstBuffer* buffer, std::span<const Face> faces) {
  for (const Face& face : faces) {
    const Box box(face.rect);
    GstVideoRegionOfInterestMeta* region = gst_buffer_add_video_region_of_interest_meta(
        buffer, faceRegionType, box.x, box.y, box.width, box.height);
    region->id = face.id;
  }
}

void drawFaces(GstVideoFrame& picture, std::span<const Face> faces) {
  std::vector<FaceRect> rects;
  rects.reserve(faces.size());
  for (const Face& face : faces)
    rects.push_back(face.rect);
  host::drawOutlines(componentsOf(picture), GST_VIDEO_FRAME_WIDTH(&picture),
                     GST_VIDEO_FRAME_HEIGHT(&picture), rects);
}

void hideFaces(GstVideoFrame& picture, std::span<const FaceRect> rects,
               const host::HidingStyle& style) {
  for (const FaceRect& rect : rects)
    host::hideFace(componentsOf(picture), GST_VIDEO_FRAME_WIDTH(&picture),
                   GST_VIDEO_FRAME_HEIGHT(&picture), rect, style);
}

}  // namespace tavro::gstreamer
