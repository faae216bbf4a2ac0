#include "modules/face_detection/frame_analysis.h"

#include <utility>

#include "engine/aligned_memory.h"
#include "engine/log.h"
#include "modules/face_detection/network_input.h"
#include "modules/face_detection/truncation.h"

namespace TavroRTC::FDModule {
namespace {

// Look odd, are meant: hosts may look for these very words. "Larger than" means "at least".
constexpr const char* shortStride = "stride should be larger than input w, pls check\n";
constexpr const char* invalidInput = "input is invalid or initialization failed, pls check\n";
constexpr const char* notInitialised = "pls init before execute\n";

constexpr size_t auxWidth = 112;
constexpr size_t auxHeight = 112;

}  // namespace

FrameAnalysis::~FrameAnalysis() {
  if (impl_ != nullptr && releaseImpl(impl_) != 0)
    logPrint("release of Impl in FaceDetector failed, pls check");
  for (uint8_t* buffer : {planarBuffer_, packedBuffer_, auxPackedBuffer_, auxPlanarBuffer_})
    alignedFree(buffer);
}

bool FrameAnalysis::init() {
  if (impl_ == nullptr)
    impl_ = createImpl(0, 0);
  const std::pair<uint8_t*&, size_t> buffers[] = {
      {planarBuffer_, planarInputSize},
      {packedBuffer_, packedInputSize},
      {auxPackedBuffer_, auxWidth * auxHeight * 3},
      {auxPlanarBuffer_, auxWidth * auxHeight * 3 / 2},
  };
  for (const auto& [buffer, bytes] : buffers)
    if (buffer == nullptr)
      buffer = static_cast<uint8_t*>(alignedAlloc(bytes));
  return impl_ != nullptr;
}

std::optional<std::vector<Detection>> FrameAnalysis::findBoxes(const FrameView& frame,
                                                               float threshold, int32_t keepLimit) {
  if (const char* problem = findProblem(frame)) {
    logPrint("%s", problem);
    return std::nullopt;
  }
  NetworkOutput output;
  if (!prepareNetworkInput(frame, planarBuffer_, packedBuffer_) || !runNetwork(output))
    return std::nullopt;
  return decodeBoxes(output, frame.width, frame.height, threshold, keepLimit);
}

bool FrameAnalysis::runNetwork(NetworkOutput& output) {
  float* boxes = nullptr;
  float* scores = nullptr;
  if (packedBuffer_ == nullptr || runImpl(impl_, packedBuffer_, &boxes, &scores) != 0)
    return false;
  output = {boxes, scores};
  return true;
}

/// The message about the first thing that is wrong, or null.
const char* FrameAnalysis::findProblem(const FrameView& frame) const {
  if (frame.strideY < frame.width || frame.strideUV < frame.width / 2)
    return shortStride;
  if (impl_ == nullptr || frame.y == nullptr || frame.u == nullptr || frame.v == nullptr)
    return invalidInput;
  if (planarBuffer_ == nullptr || packedBuffer_ == nullptr)
    return notInitialised;
  return nullptr;
}

std::vector<Detection> decodeBoxes(const NetworkOutput& output, int32_t frameWidth,
                                   int32_t frameHeight, float threshold, int32_t keepLimit) {
  BoxDecoder decoder;
  decoder.scoreThreshold = threshold;
  decoder.keepLimit = keepLimit;
  generatePriors(decoder.priors);
  return decoder.decode(frameWidth, frameHeight, output.boxes, output.scores);
}

std::vector<FaceRect> truncated(const std::vector<Detection>& boxes) {
  std::vector<FaceRect> rects;
  rects.reserve(boxes.size());
  for (const Detection& box : boxes)
    rects.push_back({truncateToInt32(box.x1), truncateToInt32(box.y1), truncateToInt32(box.x2),
                     truncateToInt32(box.y2)});
  return rects;
}

}  // namespace TavroRTC::FDModule
