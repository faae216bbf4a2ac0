#pragma once

// What the benches work on, the same in every run: frames, the network's input, and network outputs
// with six faces, because no photograph at hand has as many.

#include <cstdint>
#include <span>
#include <vector>

#include "host/core/i420_frame.h"
#include "modules/face_detection/face_tracker.h"

namespace tavro::bench {

struct FrameSize {
  int32_t width;
  int32_t height;
};

inline constexpr FrameSize frameSizes[] = {{640, 360}, {1280, 720}, {1920, 1080}, {3840, 2160}};

/// A frame of smooth shapes. Throws std::bad_alloc.
host::I420Frame sampleFrame(FrameSize size);

/// A 192x192 picture of bytes B, G, R. Pictures of different seeds differ in every pixel.
std::vector<uint8_t> samplePicture(uint32_t seed);

/// The same picture as other runtimes take it: planes B, G, R of values from 0 to 1.
std::vector<float> planesOf(std::span<const uint8_t> picture);

/// Network outputs of a frame with six faces: several priors around each face score high. The boxes
/// tremble a little with `moment`, as they do in a video.
struct FaceScene {
  explicit FaceScene(uint32_t moment);
  std::vector<float> boxes;
  std::vector<float> scores;
};

inline constexpr int32_t sceneFaces = 6;

/// What the detector does with the network's outputs: priors, decoding, suppression, tracking.
class PostProcessing {
 public:
  /// Returns the number of faces tracked.
  size_t frame(const FaceScene& scene, FrameSize size);

 private:
  std::vector<TavroRTC::FDModule::FaceTrack> tracks_;
};

}  // namespace tavro::bench
