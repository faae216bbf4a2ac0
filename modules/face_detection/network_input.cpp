#include "modules/face_detection/network_input.h"

#include "image/image_dispatch.h"

namespace TavroRTC::FDModule {
namespace {

constexpr int32_t bytesPerPixel = 3;

/// The scaler only reads its source, but one descriptor type serves for both sides.
ImageDesc describePlanes(const FrameView& frame) {
  return {.planes = {const_cast<uint8_t*>(frame.y), const_cast<uint8_t*>(frame.u),
                     const_cast<uint8_t*>(frame.v)},
          .widths = {frame.width, frame.width / 2, frame.width / 2},
          .heights = {frame.height, frame.height / 2, frame.height / 2},
          .strides = {frame.strideY, frame.strideUV, frame.strideUV},
          .format = ImageFormat::I420};
}

}  // namespace

bool prepareNetworkInput(const FrameView& frame, uint8_t* planar, uint8_t* packed) {
  constexpr int32_t side = networkInputSide;
  const ImageDesc scaled = describePlanes({.y = planar,
                                           .u = planar + side * side,
                                           .v = planar + side * side * 5 / 4,
                                           .width = side,
                                           .height = side,
                                           .strideY = side,
                                           .strideUV = side / 2});
  ImageDesc picture;
  picture.planes[0] = packed;
  picture.widths[0] = side;
  picture.heights[0] = side;
  picture.strides[0] = side * bytesPerPixel;
  picture.format = ImageFormat::Bgr24;
  return scaleImage(describePlanes(frame), scaled, ScaleFilter::Bilinear) == 0 &&
         convertImage(scaled, picture, ColorOp::I420ToBgr24) == 0;
}

}  // namespace TavroRTC::FDModule
