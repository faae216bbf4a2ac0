#include <opencv2/core.hpp>
#include <opencv2/dnn.hpp>
#include <opencv2/imgproc.hpp>

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

}  // namespace tavro::bench
