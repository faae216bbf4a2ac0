// Prints what the detector makes of a fixed set of frames: for each a checksum of the network's
// input, whose bytes are the same on every machine, and the rectangles. Two builds can be compared
// by their output.
//
//   frame_digest PICTURE    the picture is I420, 160x120

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <random>
#include <span>
#include <vector>

#include "host/core/i420_frame.h"
#include "modules/face_detection/face_tracker.h"
#include "modules/face_detection/frame_analysis.h"
#include "modules/face_detection/network_input.h"

namespace {

using namespace TavroRTC::FDModule;
using tavro::host::I420Frame;
using tavro::host::planeCount;
using tavro::host::planeExtent;

constexpr int32_t pictureWidth = 160;
constexpr int32_t pictureHeight = 120;
constexpr struct {
  int32_t width, height, strideGap;
} sizes[] = {{160, 120, 0},  {192, 192, 0},  {1280, 720, 0},  {1279, 719, 1},
             {640, 360, 24}, {641, 361, 7},  {1920, 1080, 0}, {100, 100, 3},
             {333, 500, 11}, {1, 1, 0},      {2, 3, 0},       {16, 4096, 0},
             {4096, 16, 0},  {384, 384, 64}, {383, 383, 1},   {32768, 2, 0}};

/// The picture by its nearest samples, moved to the side by a part of its width from step to step,
/// with a little noise.
I420Frame movedPicture(const std::vector<char>& picture, int32_t width, int32_t height,
                       int32_t strideGap, int32_t step, std::mt19937& noise) {
  auto frame =
      I420Frame::allocate(width, height, width + strideGap, planeExtent(1, width) + strideGap);
  size_t planeStart = 0;
  for (int32_t plane = 0; plane < planeCount; ++plane) {
    const int64_t sourceWidth = planeExtent(plane, pictureWidth);
    const int64_t sourceHeight = planeExtent(plane, pictureHeight);
    for (int64_t y = 0; y < frame->planeHeight(plane); ++y)
      for (int64_t x = 0; x < frame->planeWidth(plane); ++x) {
        const int64_t sourceX =
            (x * sourceWidth / frame->planeWidth(plane) + step * sourceWidth / 40) % sourceWidth;
        const int64_t sourceY = y * sourceHeight / frame->planeHeight(plane);
        const auto sample = static_cast<uint8_t>(
            picture[planeStart + static_cast<size_t>(sourceY * sourceWidth + sourceX)]);
        frame->writablePlane(plane)[y * frame->planeStride(plane) + x] =
            static_cast<uint8_t>(sample ^ (noise() & 3U));
      }
    planeStart += static_cast<size_t>(sourceWidth * sourceHeight);
  }
  return std::move(*frame);
}

/// FNV-1a.
uint64_t checksum(std::span<const uint8_t> bytes) {
  uint64_t hash = 14695981039346656037U;
  for (const uint8_t byte : bytes)
    hash = (hash ^ byte) * 1099511628211U;
  return hash;
}

}  // namespace

int main(int argumentCount, char** arguments) {
  std::ifstream file(argumentCount == 2 ? arguments[1] : "", std::ios::binary);
  const std::vector<char> picture(std::istreambuf_iterator<char>(file), {});
  if (picture.size() != size_t{pictureWidth} * pictureHeight * 3 / 2) {
    std::fprintf(stderr, "usage: frame_digest PICTURE, an I420 file of 160x120\n");
    return 2;
  }
  FrameAnalysis analysis;
  if (!analysis.init()) {
    std::fprintf(stderr, "frame_digest: no network\n");
    return 1;
  }
  std::mt19937 noise(1);
  std::vector<FaceTrack> tracks;
  for (const auto& [width, height, strideGap] : sizes)
    for (int32_t step = 0; step < 4; ++step) {
      const I420Frame frame = movedPicture(picture, width, height, strideGap, step, noise);
      const auto boxes = analysis.findBoxes(viewOf(frame), defaultThreshold);
      if (!boxes.has_value()) {
        std::fprintf(stderr, "frame_digest: the detector refuses %dx%d\n", width, height);
        return 1;
      }
      updateTracks(truncated(*boxes), tracks);
      std::printf("frame %dx%d input %016llx faces", width, height,
                  static_cast<unsigned long long>(checksum({analysis.picture(), packedInputSize})));
      for (const FaceTrack& track : tracks)
        std::printf(" (%d %d %d %d)", track.rect[0], track.rect[1], track.rect[2], track.rect[3]);
      std::printf("\n");
    }
  return 0;
}
