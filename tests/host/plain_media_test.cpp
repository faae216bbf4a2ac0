// The media that need no library: what is read, byte for byte, and what is refused.

#include <gtest/gtest.h>

#include <span>
#include <string>
#include <vector>

#include "host/app/plain/picture_file.h"
#include "host/app/plain/stream_header.h"
#include "host/app/png.h"
#include "tests/host/media_files.h"
#include "tests/support/traced_random.h"

namespace tavro::host {
namespace {

using namespace test;

TEST(Y4mHeader, ReadsWhatItKnowsAndRefusesTheRest) {
  const struct {
    const char* line;
    const char* fault;  // null: read
    int32_t width, height, rate;
  } cases[] = {
      {"YUV4MPEG2 W32 H18 F25:1", nullptr, 32, 18, 25},
      {"YUV4MPEG2 W32 H18 F50:2 Ip A1:1 C420jpeg XYSCSS=420JPEG", nullptr, 32, 18, 25},
      {"YUV4MPEG2  C420mpeg2  H1 W1 XCOLORRANGE=LIMITED", nullptr, 1, 1, 25},
      {"YUV4MPEG2 W1 H1 F0:0 C420paldv", nullptr, 1, 1, 25},
      {"YUV4MPEG2 W2147483647 H1 F30:1 C420", nullptr, 2147483647, 1, 30},
      {"YUV4MPEG2 W2147483648 H1", "size", 0, 0, 0},
      {"YUV4MPEG2 W-4 H4", "size", 0, 0, 0},
      {"YUV4MPEG2 W4x H4", "size", 0, 0, 0},
      {"YUV4MPEG2 W4", "size", 0, 0, 0},
      {"YUV4MPEG2", "size", 0, 0, 0},
      {"", "Y4M", 0, 0, 0},
      {"RIFF W4 H4", "Y4M", 0, 0, 0},
      {"YUV4MPEG2 W4 H4 C444", "444", 0, 0, 0},
      {"YUV4MPEG2 W4 H4 C420p10", "420p10", 0, 0, 0},
      {"YUV4MPEG2 W4 H4 XCOLORRANGE=FULL", "full-range", 0, 0, 0},
  };
  for (const auto& [line, fault, width, height, rate] : cases) {
    SCOPED_TRACE(line);
    std::string error;
    const auto header = parseY4mHeader(line, error);
    ASSERT_EQ(header.has_value(), fault == nullptr) << error;
    if (header.has_value()) {
      EXPECT_EQ(header->width, width);
      EXPECT_EQ(header->height, height);
      EXPECT_EQ(header->frameRate.perSecond(), rate);
    } else {
      EXPECT_NE(error.find(fault), std::string::npos) << error;
    }
  }
}

TEST(RawOptions, NeedASizeAndKnowTheirNames) {
  using Options = std::vector<std::pair<std::string, std::string>>;
  std::string error;
  const auto header = parseRawOptions(
      Options{{"video_size", "7x5"}, {"framerate", "30000/1001"}, {"pixel_format", "yuv420p"}},
      error);
  ASSERT_TRUE(header.has_value()) << error;
  EXPECT_EQ(header->width, 7);
  EXPECT_EQ(header->height, 5);
  EXPECT_EQ(header->frameRate.numerator, 30000);
  for (const Options& options : {Options{},
                                 {{"video_size", "7"}},
                                 {{"video_size", "7x"}},
                                 {{"video_size", "0x5"}},
                                 {{"video_size", "7x5"}, {"framerate", "0"}},
                                 {{"video_size", "7x5"}, {"framerate", "1/0"}},
                                 {{"video_size", "7x5"}, {"pixel_format", "nv12"}},
                                 {{"video_size", "7x5"}, {"other", "1"}}})
    EXPECT_FALSE(parseRawOptions(options, error).has_value());
}

class PlainInput : public FileTest {
 protected:
  std::unique_ptr<VideoInput> open(const std::string& content, InputRequest request = {}) {
    request.path = folder_.file("input");
    writeFile(request.path, content);
    return VideoInput::open(request, error_);
  }

  std::string error_;
};

TEST_F(PlainInput, FramesComeByteForByte) {
  TracedRandom random;
  for (const auto& [width, height] : {std::pair{1, 1}, {2, 3}, {33, 17}, {128, 72}})
    for (const bool isRaw : {false, true}) {
      SCOPED_TRACE(testing::Message() << width << "x" << height << (isRaw ? " raw" : " Y4M"));
      const auto frames = randomFrames(random, 3, width, height);
      std::string content = isRaw ? "" : y4m({frames.data(), 1}, "F50:1");
      for (const I420Frame& frame : std::span(frames).subspan(isRaw ? 0 : 1))
        content += (isRaw ? "" : "FRAME Ip\n") + samplesOf(frame);
      InputRequest request;
      if (isRaw)
        request = {
            .path = "",
            .format = "rawvideo",
            .options = {{"video_size", std::to_string(width) + "x" + std::to_string(height)}}};
      const auto input = open(content, request);
      ASSERT_NE(input, nullptr) << error_;
      EXPECT_EQ(input->expectedFrames(), 3);
      for (size_t i = 0; i < 3; ++i) {
        ASSERT_TRUE(input->read());
        EXPECT_EQ(input->index(), i);
        EXPECT_DOUBLE_EQ(input->time(), static_cast<double>(i) / (isRaw ? 25 : 50));
        EXPECT_EQ(samplesOf(input->picture()), samplesOf(frames[i]));
      }
      EXPECT_FALSE(input->read());
      EXPECT_FALSE(input->damage().any());
    }
}

TEST_F(PlainInput, CutOffStreamsGiveTheirWholeFrames) {
  const std::string frame = "FRAME\n" + std::string(6, 'x');  // 2x2
  const std::string header = "YUV4MPEG2 W2 H2 F25:1\n";
  const struct {
    std::string rest;
    int frames;
    bool damaged;
  } cases[] = {
      {frame + frame, 2, false},
      {frame + frame.substr(0, 11), 1, true},
      {frame + "FRA", 1, true},
      {frame + "FRAME\n", 1, true},
      {frame + "NOISE\n" + frame, 1, true},
      {"", 0, false},
      {frame + "FRAME " + std::string(5000, 'x'), 1, true},
  };
  for (const auto& [rest, frames, damaged] : cases) {
    SCOPED_TRACE(rest.substr(0, 60));
    const auto input = open(header + rest);
    ASSERT_NE(input, nullptr) << error_;
    int count = 0;
    while (input->read())
      ++count;
    EXPECT_EQ(count, frames);
    EXPECT_FALSE(input->read());  // it has ended for good
    EXPECT_EQ(input->damage().any(), damaged);
  }
}

TEST_F(PlainInput, RefusesWhatItCantRead) {
  const struct {
    std::string content;
    InputRequest request;
  } cases[] = {
      {"", {}},
      {"\xff\xd8\xff\xe0 a JPEG", {}},
      {"YUV4MPEG2 W2147483647 H2147483647\n", {}},
      {std::string(5000, 'Y'), {}},
      {"\x89PNG\r\n\x1a\n and no more", {}},
      {"YUV4MPEG2 W2 H2\n", {.path = "", .format = "matroska", .options = {}}},
      {"YUV4MPEG2 W2 H2\n", {.path = "", .format = "", .options = {{"video_size", "2x2"}}}},
      {"samples", {.path = "", .format = "rawvideo", .options = {}}},
  };
  for (const auto& [content, request] : cases) {
    SCOPED_TRACE(content.substr(0, 40));
    error_.clear();
    EXPECT_EQ(open(content, request), nullptr);
    EXPECT_NE(error_, "");
    EXPECT_EQ(error_.find('\n'), std::string::npos);
  }
  EXPECT_EQ(
      VideoInput::open({.path = folder_.file("missing"), .format = "", .options = {}}, error_),
      nullptr);
}

TEST_F(PlainInput, PicturesSurviveTheFile) {
  // Smooth, since chroma is shared by four pixels and goes through RGB.
  for (const auto& [width, height] : {std::pair{1, 1}, {34, 26}, {63, 31}}) {
    SCOPED_TRACE(testing::Message() << width << "x" << height);
    auto frame = I420Frame::allocate(width, height);
    for (int32_t plane = 0; plane < planeCount; ++plane)
      for (int32_t y = 0; y < frame->planeHeight(plane); ++y)
        for (int32_t x = 0; x < frame->planeWidth(plane); ++x)
          frame->writablePlane(plane)[y * frame->planeStride(plane) + x] =
              static_cast<uint8_t>(plane == 0 ? 60 + x + y : 110 + plane * 5 + x / 4);
    const std::string path = folder_.file("picture.png");
    writeMedia(path, {&*frame, 1});
    const auto pictures = picturesOf(path);
    ASSERT_EQ(pictures.size(), 1U);
    ASSERT_EQ(pictures[0].width(), width);
    ASSERT_EQ(pictures[0].height(), height);
    const std::string before = samplesOf(*frame);
    const std::string after = samplesOf(pictures[0]);
    for (size_t i = 0; i < before.size(); ++i)
      ASSERT_NEAR(static_cast<uint8_t>(before[i]), static_cast<uint8_t>(after[i]), 4) << i;
  }
}

TEST_F(PlainInput, DamagedPicturesNeverCrashIt) {
  TracedRandom random;
  const std::vector<uint8_t> whole = encodePng(randomFrame(random, 40, 30), 2);
  ASSERT_FALSE(whole.empty());
  for (int round = 0; round < 500; ++round) {
    std::vector<uint8_t> file = whole;
    for (int hits = random.between(1, 20); hits > 0; --hits)
      file[static_cast<size_t>(random.between(0, static_cast<int32_t>(file.size()) - 1))] =
          random.byte();
    file.resize(static_cast<size_t>(random.between(0, static_cast<int32_t>(file.size()))));
    const auto picture = decodePng(file, error_);
    EXPECT_TRUE(picture.has_value() || !error_.empty());
  }
}

TEST_F(PlainInput, StreamsWrittenAreReadAgain) {
  TracedRandom random;
  const std::string path = folder_.file("clip.y4m");
  const auto frames = randomFrames(random, 2, 33, 17);
  writeMedia(path, frames, {30000, 1001});
  EXPECT_TRUE(contentOf(path).starts_with("YUV4MPEG2 W33 H17 F30000:1001 "));
  const auto pictures = picturesOf(path);
  ASSERT_EQ(pictures.size(), 2U);
  for (size_t i = 0; i < 2; ++i)
    EXPECT_EQ(samplesOf(pictures[i]), samplesOf(frames[i]));

  const auto sink = openVideoSink(path, {.width = 32, .height = 17, .frameRate = {25, 1}}, error_);
  ASSERT_NE(sink, nullptr) << error_;
  EXPECT_FALSE(sink->write(frames[0], 0.0, error_));  // another size
}

}  // namespace
}  // namespace tavro::host
