#include "tools/jitter/detection.h"

#include <array>

#include "modules/face_detection/box_decoder.h"
#include "modules/face_detection/fd_wrapper.h"
#include "modules/face_detection/impl.h"
#include "modules/face_detection/network_input.h"
#include "modules/face_detection/truncation.h"

namespace tavro::jitter {

namespace fd = TavroRTC::FDModule;

namespace {

// As the detector's own, so that the tracker sees the boxes that are shown as raw.
constexpr float scoreThreshold = 0.65F;
constexpr int32_t keepLimit = 5;

struct NetworkDeleter {
  void operator()(fd::Impl* network) const { fd::releaseImpl(network); }
};

}  // namespace

struct Detection::Parts {
  std::unique_ptr<fd::Impl, NetworkDeleter> network;
  fd::BoxDecoder decoder;
  std::array<uint8_t, fd::planarInputSize> planar = {};
  alignas(64) std::array<uint8_t, fd::packedInputSize + 64> packed = {};  // kernels may read on
  fd::FDWrapper detector;
  host::FaceRects faces;
};

Detection::Detection() : parts_(std::make_unique<Parts>()) {}
Detection::~Detection() = default;

std::unique_ptr<Detection> Detection::make() {
  std::unique_ptr<Detection> made(new Detection);
  made->parts_->network.reset(fd::createImpl(0, 0));
  made->parts_->decoder.scoreThreshold = scoreThreshold;
  made->parts_->decoder.keepLimit = keepLimit;
  fd::generatePriors(made->parts_->decoder.priors);
  if (made->parts_->network == nullptr || !made->parts_->detector.init())
    return nullptr;
  return made;
}

bool Detection::detect(const host::I420Frame& frame, double time) {
  Parts& parts = *parts_;
  float* boxes = nullptr;
  float* scores = nullptr;
  if (!parts.detector.execute(&frame, parts.faces.sequence()) ||
      !fd::prepareNetworkInput(fd::viewOf(frame), parts.planar.data(), parts.packed.data()) ||
      fd::runImpl(parts.network.get(), parts.packed.data(), &boxes, &scores) != 0)
    return false;
  Sighting raw{.time = time, .faces = {}};
  for (const fd::Detection& box :
       parts.decoder.decode(frame.width(), frame.height(), boxes, scores))
    raw.faces.push_back({fd::truncateToInt32(box.x1), fd::truncateToInt32(box.y1),
                         fd::truncateToInt32(box.x2), fd::truncateToInt32(box.y2)});
  raw_.push_back(std::move(raw));
  tracked_.push_back(
      {.time = time, .faces = {parts.faces.view().begin(), parts.faces.view().end()}});
  return true;
}

}  // namespace tavro::jitter
