// Pictures and videos that aren't stored the way the detector wants them, and the annotated ones
// that the application writes.

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/pixdesc.h>
}

#include <gtest/gtest.h>

#include "host/app/annotation.h"
#include "host/app/ffmpeg/ffmpeg_handles.h"
#include "host/app/video_input.h"
#include "tests/host/application_runner.h"
#include "tests/host/fake_detector.h"
#include "tests/support/frames.h"
#include "tests/support/traced_random.h"

namespace tavro::test {
namespace {

using host::I420Frame;
using nlohmann::json;

constexpr uint8_t quarterLuma[4] = {60, 110, 160, 210};

/// Compares the mean luma of the four quarters, which the fake detector reports in its last
/// rectangle.
void expectQuarters(const json& result, const std::vector<int>& expected) {
  const json& face = result["faces"].back();
  const char* const edges[] = {"left", "top", "right", "bottom"};
  for (size_t i = 0; i < 4; ++i)
    EXPECT_NEAR(face[edges[i]].get<int>(), expected[i], 2) << "quarter " << i;
}

/// A JPEG of the frame, whose samples count as full range.
std::string jpeg(const I420Frame& frame) {
  const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_MJPEG);
  const host::CodecHandle encoder(avcodec_alloc_context3(codec));
  const host::FrameHandle picture(av_frame_alloc());
  const host::PacketHandle packet(av_packet_alloc());
  encoder->width = picture->width = frame.width();
  encoder->height = picture->height = frame.height();
  encoder->pix_fmt = AV_PIX_FMT_YUVJ420P;
  picture->format = AV_PIX_FMT_YUVJ420P;
  encoder->time_base = {1, 25};
  encoder->flags |= AV_CODEC_FLAG_QSCALE;
  picture->quality = encoder->global_quality = FF_QP2LAMBDA;
  for (int32_t plane = 0; plane < host::planeCount; ++plane) {
    picture->data[plane] = const_cast<uint8_t*>(frame.planeData(plane));
    picture->linesize[plane] = frame.planeStride(plane);
  }
  EXPECT_GE(avcodec_open2(encoder.get(), codec, nullptr), 0);
  EXPECT_GE(avcodec_send_frame(encoder.get(), picture.get()), 0);
  avcodec_send_frame(encoder.get(), nullptr);
  EXPECT_GE(avcodec_receive_packet(encoder.get(), packet.get()), 0);
  return {reinterpret_cast<const char*>(packet->data), static_cast<size_t>(packet->size)};
}

/// Puts an Exif block with nothing but the orientation behind the JPEG's first marker.
std::string withExifOrientation(const std::string& picture, char orientation) {
  std::string block("Exif\0\0MM\0\x2a\0\0\0\x08\0\1\x01\x12\0\3\0\0\0\1\0?\0\0\0\0\0\0", 32);
  block[25] = orientation;
  const auto length = static_cast<char>(block.size() + 2);
  return picture.substr(0, 2) + "\xff\xe1" + std::string(1, '\0') + length + block +
         picture.substr(2);
}

class Formats : public FileTest {};

TEST_F(Formats, FullRangeIsBroughtToLimitedRange) {
  const uint8_t extremes[4] = {0, 255, 128, 64};
  const auto frames = quarters(64, 48, extremes);

  const std::string clip = folder_.file("full.y4m");
  writeFile(clip, y4m(frames, "F25:1 C420jpeg XCOLORRANGE=FULL"));
  const std::string photo = folder_.file("photo.jpg");
  writeFile(photo, jpeg(frames[0]));
  for (const std::string& path : {clip, photo}) {
    SCOPED_TRACE(path);
    expectQuarters(resultsOf({path}, 1)[0], {16, 235, 126, 71});
  }
  // The same samples without the mark are limited range already.
  writeFile(clip, y4m(frames, "F25:1 C420jpeg XCOLORRANGE=LIMITED"));
  expectQuarters(resultsOf({clip}, 1)[0], {0, 255, 128, 64});
}

TEST_F(Formats, OtherSamplingsAndDepthsAreConverted) {
  // One luma plane is common to all; chroma is neutral and of each format's own size.
  const auto planes = [](int32_t chromaSamples, int depth) {
    std::string samples;
    const auto put = [&](int value) {
      samples += static_cast<char>(value << (depth - 8) & 255);
      if (depth > 8)
        samples += static_cast<char>(value >> (16 - depth));
    };
    for (const char luma : samplesOf(quarters(34, 26, quarterLuma)[0]).substr(0, 34 * 26))
      put(static_cast<uint8_t>(luma));
    for (int32_t i = 0; i < chromaSamples; ++i)
      put(128);
    return samples;
  };
  const std::pair<std::string, std::string> cases[] = {{"C444", planes(2 * 34 * 26, 8)},
                                                       {"C422", planes(2 * 17 * 26, 8)},
                                                       {"C420p10", planes(2 * 17 * 13, 10)}};
  const std::string path = folder_.file("clip.y4m");
  for (const auto& [format, samples] : cases) {
    SCOPED_TRACE(format);
    std::string stream = "YUV4MPEG2 W34 H26 F25:1 ";
    stream.append(format).append("\nFRAME\n").append(samples);
    writeFile(path, stream);
    const json result = resultsOf({path}, 1)[0];
    EXPECT_EQ(result["width"], 34);
    expectQuarters(result, {60, 110, 160, 210});
  }
}

// Cameras give NV12; widths that fit no vector once made the converter write beside its rows.
TEST_F(Formats, RawPicturesOfAnyWidthAreConverted) {
  TracedRandom random;
  for (const std::string format : {"nv12", "nv21", "yuv422p", "rgb24"})
    for (const auto& [width, height] :
         {std::pair{854, 480}, {200, 150}, {33, 17}, {2, 2}, {1, 1}}) {
      const std::string size = std::to_string(width) + "x" + std::to_string(height);
      SCOPED_TRACE(testing::Message() << format << ' ' << size);
      const I420Frame frame = randomFrame(random, width, height);
      const bool isTwoPlanes = format.starts_with("nv");
      std::string samples =
          samplesOf(frame).substr(0, static_cast<size_t>(width) * static_cast<size_t>(height));
      for (int32_t i = 0; i < frame.planeStride(1) * frame.planeHeight(1); ++i)
        for (const int32_t plane : {format == "nv21" ? 2 : 1, format == "nv21" ? 1 : 2})
          samples += static_cast<char>(frame.planeData(plane)[i]);
      samples.resize(static_cast<size_t>(
          av_image_get_buffer_size(av_get_pix_fmt(format.c_str()), width, height, 1)));
      const std::string path = folder_.file("raw");
      writeFile(path, samples + samples);
      const auto results =
          resultsOf({path, "--input-format", "rawvideo", "--input-option", "video_size=" + size,
                     "--input-option", "pixel_format=" + format},
                    2);
      if (!isTwoPlanes)
        continue;  // whose samples are converted to others
      const auto faces = fakeFaces(frame);
      for (size_t i = 0; i < faces.size(); ++i)
        EXPECT_EQ(results[1]["faces"][i]["left"], faces[i].left) << "rectangle " << i;
    }
}

TEST_F(Formats, PhotosAreTurnedUpright) {
  const std::string photo = jpeg(quarters(64, 32, quarterLuma)[0]);
  // Luma of the quarters in full range, brought to limited range.
  const auto limited = [](int quarter) { return 16 + quarterLuma[quarter] * 219 / 255; };
  const int a = limited(0), b = limited(1), c = limited(2), d = limited(3);
  // By the Exif standard: which side of the stored picture is the visual top and left.
  const struct {
    char orientation;
    std::vector<int> seen;
  } cases[] = {{1, {a, b, c, d}}, {2, {b, a, d, c}}, {3, {d, c, b, a}}, {4, {c, d, a, b}},
               {5, {a, c, b, d}}, {6, {c, a, d, b}}, {7, {d, b, c, a}}, {8, {b, d, a, c}}};
  const std::string path = folder_.file("photo.jpg");
  for (const auto& [orientation, seen] : cases) {
    SCOPED_TRACE(static_cast<int>(orientation));
    writeFile(path, withExifOrientation(photo, orientation));
    const json result = resultsOf({path}, 1)[0];
    EXPECT_EQ(result["width"], orientation < 5 ? 64 : 32);
    EXPECT_EQ(result["height"], orientation < 5 ? 32 : 64);
    expectQuarters(result, seen);
  }
}

TEST_F(Formats, VideosAreTurnedUpright) {
  const std::string path = folder_.file("clip.mp4");
  writeMedia(path, quarters(64, 32, quarterLuma, 3));
  std::string content = contentOf(path);
  // The track header's matrix: 0 -1, 1 0 turned a quarter to the left, as a phone held the other
  // way round stores it.
  const size_t header = content.find("tkhd");
  ASSERT_NE(header, std::string::npos);
  const std::string matrix("\0\0\0\0\xff\xff\0\0\0\0\0\0\0\1\0\0\0\0\0\0\0\0\0\0", 24);
  content.replace(header + 44, matrix.size(), matrix);
  writeFile(path, content);
  const json result = resultsOf({path}, 3)[0];
  EXPECT_EQ(result["width"], 32);
  EXPECT_EQ(result["height"], 64);
  expectQuarters(result, {110, 210, 60, 160});
}

TEST_F(Formats, AnyFileNameWillDo) {
  const std::string photo = jpeg(quarters(16, 16, quarterLuma)[0]);
  for (const char* name : {"with space.jpg", "100%d.jpg", "12:30.jpg", "a:b.jpg"}) {
    SCOPED_TRACE(name);
    writeFile(folder_.file(name), photo);
    resultsOf({folder_.file(name)}, 1);
  }
}

TEST_F(Formats, AnnotatedFilesCanBeReadAgain) {
  // The fake's fourth rectangle has the quarters' luma for corners: one that can be seen.
  const uint8_t corners[4] = {20, 30, 90, 70};
  const std::string clip = folder_.file("clip.y4m");
  writeFile(clip, y4m(quarters(129, 97, corners, 5), "F30000:1001 C420jpeg"));

  // Every frame is in the video, and those between two detections keep their rectangles.
  for (const char* name : {"boxes.mp4", "boxes.MKV", "boxes.mov", "boxes.png"}) {
    SCOPED_TRACE(name);
    const std::string annotated = folder_.file(name);
    const Outcome outcome = runWithFake({clip, "--annotate", annotated, "--every", "3"});
    EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
    EXPECT_EQ(outcome.results().size(), 2U);
    const bool isPicture = std::string(name).ends_with("png");
    EXPECT_EQ(outcome.errors.find("holds the first of 5 frames") != std::string::npos, isPicture);
    const auto pictures = picturesOf(annotated);
    ASSERT_EQ(pictures.size(), isPicture ? 1U : 5U);
    for (const I420Frame& picture : pictures) {
      EXPECT_EQ(picture.width(), isPicture ? 129 : 130);
      EXPECT_EQ(picture.height(), isPicture ? 97 : 98);
      const auto at = [&](int x, int y) {
        return picture.planeData(0)[y * picture.planeStride(0) + x];
      };
      EXPECT_NEAR(at(55, 31), 173, 25);  // on the upper edge
      EXPECT_NEAR(at(21, 45), 173, 25);  // on the left edge
      EXPECT_NEAR(at(40, 40), 20, 10);   // inside
      EXPECT_NEAR(at(10, 10), 20, 10);   // outside
    }
  }
}

TEST_F(Formats, ChangingPictureSizesFitTheVideo) {
  std::string error;
  const std::string path = folder_.file("clip.mp4");
  const auto sink =
      host::openVideoSink(path, {.width = 64, .height = 32, .frameRate = {25, 1}}, error);
  ASSERT_NE(sink, nullptr) << error;
  // Time stamps that stand still or go back must not stop the recording either.
  for (const auto& [width, height, time] :
       {std::tuple{64, 32, 0.0}, {128, 128, 0.04}, {31, 33, 0.04}, {64, 32, -1.0}})
    ASSERT_TRUE(sink->write(quarters(width, height, quarterLuma)[0], time, error)) << error;
  ASSERT_TRUE(sink->finish(error)) << error;
  EXPECT_EQ(picturesOf(path).size(), 4U);
}

TEST_F(Formats, WhatTheEncoderRefusesIsToldInItsWords) {
  const std::string wide = folder_.file("wide.y4m");
  writeFile(wide, y4m(quarters(32768, 2, quarterLuma)));
  const std::string video = folder_.file("boxes.mp4");
  setenv("LSAN_OPTIONS", "detect_leaks=0", 1);  // libx264 loses memory over what it refuses
  const Outcome outcome = runWithFake({wide, "--annotate", video});
  unsetenv("LSAN_OPTIONS");
  EXPECT_EQ(outcome.exitCode, 2);
  EXPECT_NE(outcome.errors.find("32768x2"), std::string::npos) << outcome.errors;
  EXPECT_FALSE(std::filesystem::exists(video));
}

}  // namespace
}  // namespace tavro::test
