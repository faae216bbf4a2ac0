#include "modules/face_detection/network_input.h"

#include "image/image_dispatch.h"

namespace TavroRTC::FDModule {
namespace {

constexpr int32_t bytesPerPixel = 3;

ImageDesc describePlanes(uint8_t* y, uint8_t* u, uint8_t* v, int32_t width, int32_t height,
                         int32_t strideY, int32_t strideUV) {
  return {.planes = {y, u, v},
          .widths = {width, width / 2, width / 2},
          .heights = {height, height / 2, height / 2},
          .strides = {strideY, strideUV, strideUV},
          .format = ImageFormat::I420};
}

/// The scaler only reads its source, but one descriptor type serves for both sides.
ImageDesc describe(const FrameView& frame) {
  return describePlanes(const_cast<uint8_t*>(frame.y), const_cast<uint8_t*>(frame.u),
                        const_cast<uint8_t*>(frame.v), frame.width, frame.height, frame.strideY,
                        frame.strideUV);
}

}  // namespace

bool prepareNetworkInput(const FrameView& frame, uint8_t* planar, uint8_t* packed) {
  constexpr int32_t pixels = inputWidth * inputHeight;
  const ImageDesc scaled = describePlanes(planar, planar + pixels, planar + pixels * 5 / 4,
                                          inputWidth, inputHeight, inputWidth, inputWidth / 2);
  ImageDesc picture;
  picture.planes[0] = packed;
  picture.widths[0] = inputWidth;
  picture.heights[0] = inputHeight;
  picture.strides[0] = inputWidth * bytesPerPixel;
  picture.format = ImageFormat::Bgr24;
  return scaleImage(describe(frame), scaled, ScaleFilter::Bilinear) == 0 &&
         convertImage(scaled, picture, ColorOp::I420ToBgr24) == 0;
}

}  // namespace TavroRTC::FDModule
