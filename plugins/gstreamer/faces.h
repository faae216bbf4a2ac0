#pragma once

// What the element tells others about the faces: a region of interest on the buffer for the
// elements downstream, a message on the bus for the application, and outlines in the picture for
// who looks at it, or nothing of the faces.

#include <gst/video/video.h>

#include <span>

#include "host/core/face_drawing.h"
#include "modules/face_detection/host_interface.h"

namespace tavro::gstreamer {

using TavroRTC::FDModule::FaceRect;

/// A face in a picture of a stream.
struct Face {
  gint id = 0;  ///< from 1; never given twice between two starts of an element
  FaceRect rect;
};

inline constexpr const char* faceMessageName = "tavro-faces";
inline constexpr const char* faceRegionType = "face";

/// When a picture was searched; all times in nanoseconds, GST_CLOCK_TIME_NONE if unknown.
struct SearchedPicture {
  guint64 frame = 0;  ///< pictures of the stream before it
  GstClockTime timestamp = GST_CLOCK_TIME_NONE;
  GstClockTime duration = GST_CLOCK_TIME_NONE;
  GstClockTime streamTime = GST_CLOCK_TIME_NONE;
  GstClockTime runningTime = GST_CLOCK_TIME_NONE;
  gint width = 0;
  gint height = 0;
};

/// The structure of the message, which the caller owns; users read of it in element_properties.cpp.
GstStructure* faceStructure(const SearchedPicture& picture, std::span<const Face> faces);

/// Adds a region of interest for every face. The buffer must be writable; its memory isn't touched.
void addFaceRegions(GstBuffer* buffer, std::span<const Face> faces);

/// Draws the outline of every face into a picture in I420 or NV12 that is mapped for writing.
void drawFaces(GstVideoFrame& picture, std::span<const Face> faces);

/// Hides what is behind the rectangles in such a picture.
void hideFaces(GstVideoFrame& picture, std::span<const FaceRect> rects,
               const host::HidingStyle& style);

}  // namespace tavro::gstreamer
