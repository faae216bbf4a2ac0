#include <map>
#include <memory>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <vector>

#include "bench/peers/picture_tasks.h"

namespace tavro::bench {
namespace {

using TavroRTC::FDModule::ColorOp;

struct Conversion {
  int channels;  // of the source; 0: three planes under each other
  int code;
};

// Gray is full-range in OpenCV, and its luma has other rounding.
const std::map<ColorOp, Conversion> conversions = {
    {ColorOp::Packed24ToPacked32, {3, cv::COLOR_BGR2BGRA}},
    {ColorOp::Packed32ToPacked24, {4, cv::COLOR_BGRA2BGR}},
    {ColorOp::Packed24ToPacked32Swapped, {3, cv::COLOR_BGR2RGBA}},
    {ColorOp::Bgr24ToLuma, {3, cv::COLOR_BGR2GRAY}},
    {ColorOp::Rgb24ToLuma, {3, cv::COLOR_RGB2GRAY}},
    {ColorOp::Bgra32ToLuma, {4, cv::COLOR_BGRA2GRAY}},
    {ColorOp::Rgba32ToLuma, {4, cv::COLOR_RGBA2GRAY}},
    {ColorOp::Rgb24ToI420, {3, cv::COLOR_RGB2YUV_I420}},
    {ColorOp::Bgr24ToI420, {3, cv::COLOR_BGR2YUV_I420}},
    {ColorOp::Rgba32ToI420, {4, cv::COLOR_RGBA2YUV_I420}},
    {ColorOp::Bgra32ToI420, {4, cv::COLOR_BGRA2YUV_I420}},
    {ColorOp::I420ToBgr24, {0, cv::COLOR_YUV2BGR_I420}},
    {ColorOp::I420ToRgb24, {0, cv::COLOR_YUV2RGB_I420}},
    {ColorOp::I420ToBgra32, {0, cv::COLOR_YUV2BGRA_I420}},
    {ColorOp::I420ToRgba32, {0, cv::COLOR_YUV2RGBA_I420}},
};

// The planes that a picture in 4:2:0 is made of.
struct Planes {
  explicit Planes(FrameSize size)
      : luma(size.height, size.width, CV_8UC1, cv::Scalar(77)),
        chroma{cv::Mat((size.height + 1) / 2, (size.width + 1) / 2, CV_8UC1, cv::Scalar(99)),
               cv::Mat((size.height + 1) / 2, (size.width + 1) / 2, CV_8UC1, cv::Scalar(111))} {
    cv::merge(chroma, pairs);
  }

  cv::Mat luma;
  std::vector<cv::Mat> chroma;
  cv::Mat pairs;
  cv::Mat lumaCopy;
};

}  // namespace

PictureTask openCvConversion(ColorOp op, FrameSize size) {
  cv::setNumThreads(1);
  if (op >= ColorOp::I420ToNv21) {
    const auto planes = std::make_shared<Planes>(size);
    const bool merges = op == ColorOp::I420ToNv21 || op == ColorOp::I420ToNv12;
    return [planes, merges] {
      planes->luma.copyTo(planes->lumaCopy);
      if (merges)
        cv::merge(planes->chroma, planes->pairs);
      else
        cv::split(planes->pairs, planes->chroma);
    };
  }
  const auto entry = conversions.find(op);
  if (entry == conversions.end())
    return {};
  const auto [channels, code] = entry->second;
  const cv::Mat source = channels == 0
                             ? cv::Mat(size.height * 3 / 2, size.width, CV_8UC1, cv::Scalar(99))
                             : cv::Mat(size.height, size.width, CV_8UC(channels), cv::Scalar(99));
  return
      [source, code, target = std::make_shared<cv::Mat>()] { cv::cvtColor(source, *target, code); };
}

PictureTask openCvScale(int32_t bytesPerPixel, FrameSize from, FrameSize to) {
  cv::setNumThreads(1);
  const cv::Mat source(from.height, from.width, CV_8UC(bytesPerPixel), cv::Scalar(99));
  return [source, to, target = std::make_shared<cv::Mat>()] {
    cv::resize(source, *target, cv::Size(to.width, to.height), 0, 0, cv::INTER_LINEAR);
  };
}

}  // namespace tavro::bench
