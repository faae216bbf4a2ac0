// Another project's runtime, which reads the model from the exported ONNX file, against the
// reference network. The engine is compared with that, too (network_agreement_test.cpp): the
// drawing of the network in reference_network.cpp, the engine's tables and the exporter's have to
// be one.

#include <gtest/gtest.h>

#include <opencv2/core.hpp>
#include <opencv2/dnn.hpp>
#include <vector>

#include "tests/end_to_end/reference_network.h"

namespace {

using namespace tavro::test;

TEST(OnnxAgreement, OpenCvComputesWhatTheReferenceDoes) {
  SCOPED_TRACE(seedNote(baseSeed()));
  // OpenCV states 7e-6 for its exponential; a probability is made of two.
  constexpr double softmaxError = 2 * 7e-6;
  ReferenceNetwork reference(TAVRO_WEIGHTS_PATH);
  cv::dnn::Net network = cv::dnn::readNetFromONNX(TAVRO_ONNX_PATH);
  network.setPreferableBackend(cv::dnn::DNN_BACKEND_OPENCV);
  for (TestPicture& picture : testPictures(baseSeed())) {
    SCOPED_TRACE(picture.name);
    const ReferenceNetwork::Output expected = reference.run(picture.bytes);
    const cv::Mat pixels(ReferenceNetwork::side, ReferenceNetwork::side, CV_8UC3,
                         picture.bytes.data());
    network.setInput(cv::dnn::blobFromImage(pixels, 1 / 255.0));
    std::vector<cv::Mat> outputs;
    network.forward(outputs, std::vector<cv::String>{"scores", "Reshape_0"});
    ASSERT_EQ(outputs[0].total(), expected.scores.size());
    ASSERT_EQ(outputs[1].total(), expected.boxes.size());
    expectAgreement("scores", outputs[0].ptr<float>(), expected.scores, scoreLimit, softmaxError);
    expectAgreement("boxes", outputs[1].ptr<float>(), expected.boxes, boxLimit);
  }
}

}  // namespace
