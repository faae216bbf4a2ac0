#pragma once

// Pictures and videos for tests, written into a folder of the test's own and read again by the
// application's own sinks and input.

#include <gtest/gtest.h>

#include <span>
#include <string>
#include <vector>

#include "host/app/annotation.h"
#include "host/app/media.h"
#include "host/app/video_input.h"
#include "host/core/i420_frame.h"
#include "tests/support/frames.h"
#include "tests/support/temporary_folder.h"

namespace tavro::test {

/// A test with a folder of its own, in which the media libraries are as quiet as in the
/// application.
class FileTest : public testing::Test {
 protected:
  FileTest() { host::prepareMedia(); }

  TemporaryFolder folder_;
};

/// A picture or a video, by the name's extension.
inline void writeMedia(const std::string& path, std::span<const host::I420Frame> frames,
                       host::FrameRate rate = {25, 1}) {
  std::string error;
  const auto sink = host::openSink(
      path, {.width = frames[0].width(), .height = frames[0].height(), .frameRate = rate}, error);
  ASSERT_NE(sink, nullptr) << error;
  double time = 0;
  for (const host::I420Frame& frame : frames) {
    ASSERT_TRUE(sink->write(frame, time, error)) << error;
    time += 1 / rate.perSecond();
  }
  ASSERT_TRUE(sink->finish(error)) << error;
}

/// The file's pictures; a damaged one fails the test.
inline std::vector<host::I420Frame> picturesOf(const std::string& path) {
  std::vector<host::I420Frame> pictures;
  std::string error;
  const auto input = host::VideoInput::open({.path = path, .format = {}, .options = {}}, error);
  EXPECT_NE(input, nullptr) << error;
  while (input != nullptr && input->read())
    pictures.push_back(*host::copyOf(input->picture()));
  EXPECT_FALSE(input != nullptr && input->damage().any());
  return pictures;
}

/// A YUV4MPEG2 stream of the frames: the simplest of the formats that carry I420 as it is.
inline std::string y4m(std::span<const host::I420Frame> frames,
                       const std::string& parameters = "F25:1 C420jpeg") {
  std::string stream = "YUV4MPEG2 W" + std::to_string(frames.front().width()) + " H" +
                       std::to_string(frames.front().height()) + " " + parameters + "\n";
  for (const host::I420Frame& frame : frames)
    stream += "FRAME\n" + samplesOf(frame);
  return stream;
}

inline std::vector<host::I420Frame> randomFrames(Random& random, int count, int32_t width,
                                                 int32_t height) {
  std::vector<host::I420Frame> frames;
  frames.reserve(static_cast<size_t>(count));
  for (int i = 0; i < count; ++i)
    frames.push_back(randomFrame(random, width, height));
  return frames;
}

/// Equal frames whose quarters have the given luma (top left, top right, bottom left, bottom right)
/// and whose chroma is neutral.
inline std::vector<host::I420Frame> quarters(int32_t width, int32_t height,
                                             const uint8_t (&luma)[4], int count = 1) {
  std::vector<host::I420Frame> frames;
  while (count-- > 0) {
    frames.push_back(plainFrame(width, height));
    for (int32_t y = 0; y < height; ++y)
      for (int32_t x = 0; x < width; ++x)
        frames.back().writablePlane(0)[y * width + x] =
            luma[(y >= height / 2 ? 2 : 0) + (x >= width / 2)];
  }
  return frames;
}

}  // namespace tavro::test
