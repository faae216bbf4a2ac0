#include "gstreamer/frame_reader.h"

#include "host/core/frame_image.h"
#include "image/image_dispatch.h"
#include "image/plane_scaler.h"

namespace tavro::gstreamer {

using host::I420Frame;

namespace {

const uint8_t* planeOf(const GstVideoFrame& picture, int plane) {
  return static_cast<const uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&picture, plane));
}

int32_t strideOf(const GstVideoFrame& picture, int plane) {
  return GST_VIDEO_FRAME_PLANE_STRIDE(&picture, plane);
}

/// Rows may not overlap, and the rows of the interleaved plane hold two samples for every two
/// columns.
bool hasWholeRows(const GstVideoFrame& picture, bool isInterleaved) {
  const int32_t chroma = host::planeExtent(1, GST_VIDEO_FRAME_WIDTH(&picture));
  if (isInterleaved)
    return strideOf(picture, 0) >= GST_VIDEO_FRAME_WIDTH(&picture) &&
           strideOf(picture, 1) >= 2 * chroma;
  return strideOf(picture, 0) >= GST_VIDEO_FRAME_WIDTH(&picture) &&
         strideOf(picture, 1) >= chroma && strideOf(picture, 2) >= chroma;
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

const I420Frame* FrameReader::read(const GstVideoFrame& picture) {
  const GstVideoFormat format = GST_VIDEO_FRAME_FORMAT(&picture);
  const bool isInterleaved = format == GST_VIDEO_FORMAT_NV12;
  if ((!isInterleaved && format != GST_VIDEO_FORMAT_I420) || !hasWholeRows(picture, isInterleaved))
    return nullptr;
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

}  // namespace tavro::gstreamer
