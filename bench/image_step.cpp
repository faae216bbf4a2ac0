#include "bench/image_step.h"

#include <stdexcept>

#include "bench/network.h"
#include "image/image_dispatch.h"

namespace tavro::bench {

using namespace TavroRTC::FDModule;

namespace {

void expectSuccess(int32_t status) {
  if (status != 0)
    throw std::runtime_error("the image code refuses the sample frame");
}

}  // namespace

ImageStep::ImageStep(const host::I420Frame& frame)
    : planes_(size_t{inputSide} * inputSide * 3 / 2), picture_(pictureBytes) {
  constexpr int32_t pixels = inputSide * inputSide;
  constexpr int32_t half = inputSide / 2;
  source_.format = scaled_.format = ImageFormat::I420;
  for (int32_t plane = 0; plane < host::planeCount; ++plane) {
    source_.planes[plane] = const_cast<uint8_t*>(frame.planeData(plane));
    source_.widths[plane] = frame.planeWidth(plane);
    source_.heights[plane] = frame.planeHeight(plane);
    source_.strides[plane] = frame.planeStride(plane);
    scaled_.widths[plane] = scaled_.heights[plane] = plane == 0 ? inputSide : half;
    scaled_.strides[plane] = scaled_.widths[plane];
  }
  scaled_.planes[0] = planes_.data();
  scaled_.planes[1] = planes_.data() + pixels;
  scaled_.planes[2] = planes_.data() + pixels * 5 / 4;
  packed_.format = ImageFormat::Bgr24;
  packed_.planes[0] = picture_.data();
  packed_.widths[0] = packed_.heights[0] = inputSide;
  packed_.strides[0] = 3 * inputSide;
}

void ImageStep::scale() {
  expectSuccess(scaleImage(source_, scaled_, ScaleFilter::Bilinear));
}

void ImageStep::convert() {
  expectSuccess(convertImage(scaled_, packed_, ColorOp::I420ToBgr24));
}

void ImageStep::run() {
  scale();
  convert();
}

}  // namespace tavro::bench
