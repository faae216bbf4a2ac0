#include <algorithm>
#include <map>
#include <memory>
#include <opencv2/core.hpp>
#include <opencv2/dnn.hpp>
#include <opencv2/imgproc.hpp>
#include <vector>

#include "bench/network.h"
#include "bench/peers/peers.h"

namespace tavro::bench {
namespace {

const std::string dnnName = "OpenCV dnn";

/// The output names of the exported network, in the order of NetworkOutputs.
const std::vector<cv::String> outputNames = {"scores", "Reshape_0"};

/// A view of a plane that is only read.
cv::Mat planeOf(const host::I420Frame& frame, int32_t plane) {
  return {frame.planeHeight(plane), frame.planeWidth(plane), CV_8UC1,
          const_cast<uint8_t*>(frame.planeData(plane)),
          static_cast<size_t>(frame.planeStride(plane))};
}

/// The name that the layer has in our table: what follows the last colon, "onnx_node!Conv:235".
std::string ownName(const std::string& layer) {
  return layer.substr(layer.rfind(':') + 1);
}

cv::dnn::Net readNetwork(const std::string& model) {
  cv::setNumThreads(1);
  cv::dnn::Net network = cv::dnn::readNetFromONNX(model);
  network.setPreferableBackend(cv::dnn::DNN_BACKEND_OPENCV);
  network.setPreferableTarget(cv::dnn::DNN_TARGET_CPU);
  return network;
}

class OpenCvNetwork final : public NetworkPeer {
 public:
  explicit OpenCvNetwork(const std::string& model) : network_(readNetwork(model)) {}

  std::string name() const override { return dnnName + " " + CV_VERSION; }

  NetworkOutputs outputs(const std::vector<float>& planes) override {
    const int extents[] = {1, 3, inputSide, inputSide};
    const cv::Mat picture(4, extents, CV_32F, const_cast<float*>(planes.data()));
    network_.setInput(picture.clone());
    std::vector<cv::Mat> outputs;
    network_.forward(outputs, outputNames);
    return {.scores = {outputs[0].begin<float>(), outputs[0].end<float>()},
            .boxes = {outputs[1].begin<float>(), outputs[1].end<float>()}};
  }

  void measure(int runs, RunTimes& times) override {
    std::vector<cv::Mat> outputs;
    network_.forward(outputs, outputNames);
    for (int i = 0; i < runs; ++i) {
      const double start = now();
      network_.forward(outputs, outputNames);
      times.push_back(now() - start);
      keepLayerTimes();
    }
  }

  std::map<std::string, double> layerTimes() const override {
    std::map<std::string, double> medians;
    for (const auto& [layer, times] : layers_)
      if (const double median = summarize(times).median; median > 0)
        medians[layer] = median;
    return medians;
  }

 private:
  void keepLayerTimes() {
    std::vector<double> ticks;
    network_.getPerfProfile(ticks);
    const std::vector<cv::String> names = network_.getLayerNames();
    for (size_t i = 0; i < std::min(ticks.size(), names.size()); ++i)
      layers_[ownName(names[i])].push_back(ticks[i] / cv::getTickFrequency() * 1e9);
  }

  cv::dnn::Net network_;
  std::map<std::string, RunTimes> layers_;
};

class OpenCvImage : public ImagePeer {
 public:
  explicit OpenCvImage(const host::I420Frame& frame) {
    cv::setNumThreads(1);
    for (int32_t plane = 0; plane < host::planeCount; ++plane)
      planes_[plane] = planeOf(frame, plane);
    // cvtColor wants the three planes one behind the other.
    constexpr int32_t half = inputSide / 2;
    scaled_.create(inputSide * 3 / 2, inputSide, CV_8UC1);
    uint8_t* chroma = scaled_.ptr(inputSide);
    targets_[0] = scaled_.rowRange(0, inputSide);
    targets_[1] = cv::Mat(half, half, CV_8UC1, chroma);
    targets_[2] = cv::Mat(half, half, CV_8UC1, chroma + ptrdiff_t{half} * half);
  }

  std::string name() const override { return "OpenCV resize+cvtColor"; }

  void run() override {
    for (int32_t plane = 0; plane < host::planeCount; ++plane)
      cv::resize(planes_[plane], targets_[plane], targets_[plane].size(), 0, 0, cv::INTER_LINEAR);
    cv::cvtColor(scaled_, bgr_, cv::COLOR_YUV2BGR_I420);
  }

  std::span<const uint8_t> picture() const override { return {bgr_.data, bgr_.total() * 3}; }
  const cv::Mat& mat() const { return bgr_; }

 private:
  cv::Mat planes_[host::planeCount];
  cv::Mat targets_[host::planeCount];
  cv::Mat scaled_;
  cv::Mat bgr_;
};

class OpenCvColorsFirst final : public ImagePeer {
 public:
  explicit OpenCvColorsFirst(const host::I420Frame& frame) {
    cv::setNumThreads(1);
    // The frame's planes lie behind one another without gaps (sampleFrame), as cvtColor wants it.
    whole_ = cv::Mat(frame.height() * 3 / 2, frame.width(), CV_8UC1,
                     const_cast<uint8_t*>(frame.planeData(0)));
  }

  std::string name() const override { return "OpenCV cvtColor+resize"; }

  void run() override {
    cv::cvtColor(whole_, colors_, cv::COLOR_YUV2BGR_I420);
    cv::resize(colors_, bgr_, {inputSide, inputSide}, 0, 0, cv::INTER_LINEAR);
  }

  std::span<const uint8_t> picture() const override { return {bgr_.data, bgr_.total() * 3}; }

 private:
  cv::Mat whole_;
  cv::Mat colors_;
  cv::Mat bgr_;
};

class OpenCvFrame final : public FramePeer {
 public:
  OpenCvFrame(const std::string& model, const host::I420Frame& frame)
      : image_(frame), network_(readNetwork(model)) {}

  std::string name() const override { return dnnName + ", its resize and cvtColor"; }

  void run() override {
    image_.run();
    cv::dnn::blobFromImage(image_.mat(), blob_, 1.0 / 255.0);
    network_.setInput(blob_);
    network_.forward(outputs_, outputNames);
  }

 private:
  OpenCvImage image_;
  cv::dnn::Net network_;
  cv::Mat blob_;
  std::vector<cv::Mat> outputs_;
};

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

std::unique_ptr<NetworkPeer> makeOpenCvNetwork(const PeerSetup& setup) {
  return std::make_unique<OpenCvNetwork>(setup.model);
}
std::unique_ptr<ImagePeer> makeOpenCvImage(const host::I420Frame& frame) {
  return std::make_unique<OpenCvImage>(frame);
}
std::unique_ptr<ImagePeer> makeOpenCvImageColorsFirst(const host::I420Frame& frame) {
  return std::make_unique<OpenCvColorsFirst>(frame);
}
std::unique_ptr<FramePeer> makeOpenCvFrame(const PeerSetup& setup, const host::I420Frame& frame) {
  return std::make_unique<OpenCvFrame>(setup.model, frame);
}

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
