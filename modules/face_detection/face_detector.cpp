#include "modules/face_detection/face_detector.h"

#include <limits>
#include <utility>
#include <vector>

#include "engine/aligned_memory.h"
#include "engine/log.h"
#include "modules/face_detection/box_decoder.h"
#include "modules/face_detection/face_tracker.h"
#include "modules/face_detection/impl.h"
#include "modules/face_detection/network_input.h"
#include "modules/face_detection/prior_boxes.h"
#include "modules/face_detection/truncation.h"

namespace TavroRTC::FDModule {
namespace {

constexpr int32_t keepLimit = 5;

constexpr const char* noThreshold = "threshold not set, pls check\n";
constexpr const char* shortStride = "stride should be larger than input w, pls check\n";
constexpr const char* invalidInput = "input is invalid or initialization failed, pls check\n";
constexpr const char* notInitialised = "pls init before execute\n";

/// The raw outputs of the network for one frame; they belong to the network.
struct NetworkOutput {
  float* boxes = nullptr;
  float* scores = nullptr;
};

std::vector<FaceRect> truncated(const std::vector<Detection>& detections) {
  std::vector<FaceRect> rects;
  rects.reserve(detections.size());
  for (const Detection& box : detections)
    rects.push_back({truncateToInt32(box.x1), truncateToInt32(box.y1), truncateToInt32(box.x2),
                     truncateToInt32(box.y2)});
  return rects;
}

/// Has the host make room. Its word isn't taken for it.
bool growTo(FaceRectSequence& sequence, size_t count) {
  if (count > static_cast<size_t>(std::numeric_limits<int32_t>::max()))
    return false;
  const auto capacity = static_cast<int32_t>(count);
  if (sequence.capacity < capacity &&
      (sequence.grow == nullptr || !sequence.grow(&sequence, capacity)))
    return false;
  return capacity == 0 || (sequence.elements != nullptr && sequence.capacity >= capacity);
}

}  // namespace

struct FaceDetector::State {
  State() = default;
  ~State();
  State(const State&) = delete;
  State& operator=(const State&) = delete;

  void allocateBuffers();
  const char* findProblem(const FrameView& frame) const;
  bool runNetwork(NetworkOutput& output) const;
  std::vector<FaceRect> findBoxes(const NetworkOutput& output, const FrameView& frame) const;
  bool makeRoom(size_t boxCount, FaceRectSequence& faces);
  void trackFaces(const std::vector<FaceRect>& boxes);
  void report(FaceRectSequence& faces) const;

  Impl* impl = nullptr;
  int32_t auxWidth = 112;
  int32_t auxHeight = 112;
  uint8_t* planarBuffer = nullptr;     ///< the frame at the network's size, three planes
  uint8_t* packedBuffer = nullptr;     ///< the same as B, G, R bytes: the network reads it in place
  uint8_t* auxPackedBuffer = nullptr;  ///< spare, like the next: no stage uses them
  uint8_t* auxPlanarBuffer = nullptr;
  std::vector<FaceTrack> tracks;  ///< in order of creation
  float threshold = 0;
};

FaceDetector::FaceDetector() : state_(new State) {}

FaceDetector::~FaceDetector() {
  delete state_;
}

FaceDetector::State::~State() {
  if (impl != nullptr && releaseImpl(impl) != 0)
    logPrint("release of Impl in FaceDetector failed, pls check");
  for (uint8_t* buffer : {planarBuffer, packedBuffer, auxPackedBuffer, auxPlanarBuffer})
    alignedFree(buffer);
}

bool FaceDetector::init(float threshold) {
  state_->threshold = threshold;
  if (state_->impl == nullptr)
    state_->impl = createImpl(0, 0);
  state_->allocateBuffers();
  return state_->impl != nullptr;
}

/// A buffer that can't be had stays null; execute finds out.
void FaceDetector::State::allocateBuffers() {
  const size_t auxPixels = static_cast<size_t>(auxWidth) * static_cast<size_t>(auxHeight);
  const std::pair<uint8_t*&, size_t> buffers[] = {
      {planarBuffer, planarInputSize},
      {packedBuffer, packedInputSize},
      {auxPackedBuffer, auxPixels * 3},
      {auxPlanarBuffer, auxPixels * 3 / 2},
  };
  for (const auto& [buffer, bytes] : buffers)
    if (buffer == nullptr)
      buffer = static_cast<uint8_t*>(alignedAlloc(bytes));
}

bool FaceDetector::execute(const FrameView& frame, FaceRectSequence& faces) {
  faces.size = 0;
  if (const char* problem = state_->findProblem(frame)) {
    logPrint("%s", problem);
    return false;
  }
  NetworkOutput output;
  if (!prepareNetworkInput(frame, state_->planarBuffer, state_->packedBuffer) ||
      !state_->runNetwork(output))
    return false;
  const std::vector<FaceRect> boxes = state_->findBoxes(output, frame);
  if (!state_->makeRoom(boxes.size(), faces))
    return false;
  state_->trackFaces(boxes);
  state_->report(faces);
  return true;
}

/// The message about the first thing that is wrong, or null.
const char* FaceDetector::State::findProblem(const FrameView& frame) const {
  if (threshold == 0)
    return noThreshold;
  if (frame.strideY < frame.width || frame.strideUV < frame.width / 2)
    return shortStride;
  if (impl == nullptr || frame.y == nullptr || frame.u == nullptr || frame.v == nullptr)
    return invalidInput;
  if (planarBuffer == nullptr || packedBuffer == nullptr)
    return notInitialised;
  return nullptr;
}

bool FaceDetector::State::runNetwork(NetworkOutput& output) const {
  return runImpl(impl, packedBuffer, &output.boxes, &output.scores) == 0;
}

/// The boxes of this frame alone, best first.
std::vector<FaceRect> FaceDetector::State::findBoxes(const NetworkOutput& output,
                                                     const FrameView& frame) const {
  BoxDecoder decoder;
  decoder.keepLimit = keepLimit;
  decoder.scoreThreshold = threshold;
  generatePriors(decoder.priors);
  return truncated(decoder.decode(frame.width, frame.height, output.boxes, output.scores));
}

/// For the most tracks that there can be after this frame, here and with the host: once a track has
/// been touched, nothing may fail.
bool FaceDetector::State::makeRoom(size_t boxCount, FaceRectSequence& faces) {
  const size_t mostTracks = tracks.size() + boxCount;
  tracks.reserve(mostTracks);
  return growTo(faces, mostTracks);
}

void FaceDetector::State::trackFaces(const std::vector<FaceRect>& boxes) {
  std::vector<FaceRect> unmatched;
  unmatched.reserve(boxes.size());  // as makeRoom: the last thing here that may throw
  associateTracks(boxes, unmatched, tracks);
  pruneTracks(boxes, tracks);
  addTracks(unmatched, tracks);
}

void FaceDetector::State::report(FaceRectSequence& faces) const {
  for (const FaceTrack& track : tracks)
    faces.elements[faces.size++] = track.faceRect();
}

const char* FaceDetector::version() {
  return "\"facedetection_release_1.2.0\"";
}

}  // namespace TavroRTC::FDModule
