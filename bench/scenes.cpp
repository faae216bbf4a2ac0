#include "bench/scenes.h"

#include <array>
#include <cmath>
#include <new>
#include <random>
#include <utility>

#include "bench/network.h"
#include "modules/face_detection/frame_analysis.h"

namespace tavro::bench {

using namespace TavroRTC::FDModule;

namespace {

struct Face {
  float cx, cy, size;  // fractions of the picture
};

constexpr Face faces[sceneFaces] = {{0.20F, 0.25F, 0.16F}, {0.50F, 0.22F, 0.16F},
                                    {0.80F, 0.27F, 0.15F}, {0.22F, 0.72F, 0.33F},
                                    {0.52F, 0.75F, 0.08F}, {0.80F, 0.70F, 0.34F}};

/// Whether a prior lies on a face closely enough for the network to fire.
bool fires(const PriorBox& prior, const Face& face) {
  const float shift = std::hypot(prior.cx - face.cx, prior.cy - face.cy);
  const float ratio = prior.w / face.size;
  return shift < 0.35F * face.size && ratio > 0.6F && ratio < 1.7F;
}

}  // namespace

host::I420Frame sampleFrame(FrameSize size) {
  auto frame = host::I420Frame::allocate(size.width, size.height);
  if (!frame)
    throw std::bad_alloc();
  for (int32_t plane = 0; plane < host::planeCount; ++plane) {
    uint8_t* samples = frame->writablePlane(plane);
    const int32_t width = frame->planeWidth(plane);
    const int32_t height = frame->planeHeight(plane);
    const auto phase = static_cast<float>(plane);
    for (int32_t y = 0; y < height; ++y)
      for (int32_t x = 0; x < width; ++x) {
        const float u = 6.3F * static_cast<float>(x) / static_cast<float>(width);
        const float v = 6.3F * static_cast<float>(y) / static_cast<float>(height);
        const float value = std::sin(2 * u + phase) * std::cos(3 * v) + std::sin(u * v + phase);
        samples[y * frame->planeStride(plane) + x] = static_cast<uint8_t>(128 + 40 * value);
      }
  }
  return std::move(*frame);
}

std::vector<uint8_t> samplePicture(uint32_t seed) {
  std::mt19937 random(seed);
  std::vector<uint8_t> picture(pictureBytes);
  for (uint8_t& byte : picture)
    byte = static_cast<uint8_t>(random() >> 24U);
  return picture;
}

std::vector<float> planesOf(std::span<const uint8_t> picture) {
  constexpr size_t pixels = pictureBytes / 3;
  std::vector<float> planes(pictureBytes);
  for (size_t i = 0; i < pixels; ++i)
    for (size_t channel = 0; channel < 3; ++channel)
      planes[channel * pixels + i] = static_cast<float>(picture[3 * i + channel]) / 255.0F;
  return planes;
}

FaceScene::FaceScene(uint32_t moment) : boxes(priorCount * 4), scores(priorCount * 2) {
  std::array<PriorBox, priorCount> priors;
  generatePriors(priors);
  std::mt19937 random(moment + 1);
  std::uniform_real_distribution<float> tremble(-0.1F, 0.1F);
  std::uniform_real_distribution<float> low(0.0F, 0.4F);
  std::uniform_real_distribution<float> high(0.7F, 0.99F);
  for (size_t i = 0; i < priorCount; ++i) {
    const PriorBox& prior = priors[i];
    float score = low(random);
    for (const Face& face : faces) {
      if (!fires(prior, face))
        continue;
      score = high(random);
      float* offsets = boxes.data() + 4 * i;
      offsets[0] = (face.cx - prior.cx) / (0.1F * prior.w) + tremble(random);
      offsets[1] = (face.cy - prior.cy) / (0.1F * prior.h) + tremble(random);
      offsets[2] = std::log(face.size / prior.w) / 0.2F + tremble(random);
      offsets[3] = std::log(face.size / prior.h) / 0.2F + tremble(random);
    }
    scores[2 * i] = 1 - score;
    scores[2 * i + 1] = score;
  }
}

size_t PostProcessing::frame(const FaceScene& scene, FrameSize size) {
  const NetworkOutput output = {.boxes = scene.boxes.data(), .scores = scene.scores.data()};
  updateTracks(truncated(decodeBoxes(output, size.width, size.height, defaultThreshold)), tracks_);
  return tracks_.size();
}

}  // namespace tavro::bench
