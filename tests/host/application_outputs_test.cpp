// What is made of the faces: the scripts are given to FFmpeg's own program, and the pictures that
// come out are compared, sample by sample, with those that went in.

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>

#include "host/app/anonymisation.h"
#include "host/core/face_numbers.h"
#include "tests/host/application_runner.h"
#include "tests/host/fake_detector.h"

namespace tavro::test {
namespace {

using host::I420Frame;
using TavroRTC::FDModule::FaceRect;

constexpr int32_t width = 160;
constexpr int32_t height = 96;

constexpr uint8_t background = 60;
constexpr uint8_t darkStripe = 100;  // every fourth row, on faces and beside them

/// Faces that come, stay, move, go, and come again elsewhere. None begins or ends with a dark
/// stripe.
const std::vector<std::vector<FaceRect>> story = {
    {},
    {{20, 20, 50, 60}},
    {{20, 20, 50, 60}},
    {{20, 20, 50, 60}, {100, 32, 140, 72}},
    {{26, 20, 56, 60}, {100, 32, 140, 72}},
    {{100, 32, 140, 72}},
    {{100, 32, 140, 72}},
    {{4, 72, 34, 94}, {102, 32, 142, 72}},
    {},
};

/// The story painted for the fake detector, with stripes by which to tell what is pixelated.
std::vector<I420Frame> paintedStory() {
  std::vector<I420Frame> frames;
  for (const auto& faces : story) {
    I420Frame frame = plainFrame(width, height);
    uint8_t* samples = frame.writablePlane(0);
    for (int32_t y = 0; y < height; ++y)
      std::fill_n(samples + y * width, width, y % 4 == 2 ? darkStripe : background);
    for (size_t i = 0; i < faces.size(); ++i) {
      // A lone face at the right is the second one, which has stayed.
      const uint8_t luma = paintedLuma[faces[i].left >= 100 ? 1 : 0];
      for (int32_t y = faces[i].top; y < faces[i].bottom; ++y)
        for (int32_t x = faces[i].left; x < faces[i].right; ++x)
          samples[y * width + x] = y % 4 == 2 ? darkStripe : luma;
    }
    frames.push_back(std::move(frame));
  }
  return frames;
}

class Outputs : public FileTest {
 protected:
  std::string clip(const std::string& rate) {
    std::string path = folder_.file("clip.y4m");
    writeFile(path, y4m(frames_, rate + " C420jpeg"));
    return path;
  }

  static void run(std::vector<std::string> arguments) {
    arguments.insert(arguments.end(), {"--module", FAKE_PAINTED_FILE});
    const Outcome outcome = runApplication(arguments);
    ASSERT_EQ(outcome.exitCode, 0) << outcome.errors;
  }

  /// The samples of the video that FFmpeg makes of it with these options.
  std::string filtered(const std::string& video, const std::vector<std::string>& options) {
    std::vector<std::string> arguments = {"ffmpeg", "-nostdin", "-loglevel", "error", "-i", video};
    arguments.insert(arguments.end(), options.begin(), options.end());
    const std::string target = folder_.file("out.yuv");
    arguments.insert(arguments.end(), {"-fps_mode", "passthrough", "-f", "rawvideo", "-pix_fmt",
                                       "yuv420p", "-y", target});
    const std::string errors = folder_.file("errors");
    EXPECT_EQ(runProgram("/usr/bin/env", arguments, {.errors = errors}), 0) << contentOf(errors);
    return contentOf(target);
  }

  /// For FFmpeg to apply what is in the file.
  static std::vector<std::string> filterOptions(const std::string& format,
                                                const std::string& file) {
    return format == "ass" ? std::vector<std::string>{"-vf", "ass=" + file}
                           : std::vector<std::string>{"-filter_script:v", file};
  }

  /// Calls back for every luma sample: the frame's faces, where it is, before and after.
  void compare(const std::string& samples,
               const std::function<void(size_t frame, int32_t x, int32_t y, int before, int after)>&
                   check) const {
    constexpr size_t frameSize = width * height * 3 / 2;
    ASSERT_EQ(samples.size(), frameSize * frames_.size());
    for (size_t frame = 0; frame < frames_.size(); ++frame)
      for (int32_t y = 0; y < height; ++y)
        for (int32_t x = 0; x < width; ++x)
          check(frame, x, y, frames_[frame].planeData(0)[y * width + x],
                static_cast<uint8_t>(
                    samples[frame * frameSize + static_cast<size_t>(y * width + x)]));
  }

  std::vector<I420Frame> frames_ = paintedStory();
};

class Scripts : public Outputs {
 protected:
  void SetUp() override {
    if (runProgram("/usr/bin/env", {"ffmpeg", "-version"}, {}) != 0)
      GTEST_SKIP() << "there is no ffmpeg program";
  }
};

bool holds(const FaceRect& face, int32_t x, int32_t y) {
  return x >= face.left && x < face.right && y >= face.top && y < face.bottom;
}

TEST_F(Scripts, DrawTheBoxesWhereAndWhenTheyAre) {
  for (const char* rate : {"F25:1", "F30000:1001", "F60:1"})
    for (const std::string format : {"ass", "draw-filter"}) {
      SCOPED_TRACE(format + std::string(" at ") + rate);
      const std::string script = folder_.file("boxes");
      const std::string video = clip(rate);
      run({video, "--format", format, "--output", script});
      int64_t wrong = 0;
      compare(filtered(video, filterOptions(format, script)),
              [&](size_t frame, int32_t x, int32_t y, int before, int after) {
                bool drawn = false;
                for (const FaceRect& face : story[frame])
                  drawn |=
                      holds(face, x, y) &&
                      !holds({face.left + 2, face.top + 2, face.right - 2, face.bottom - 2}, x, y);
                wrong += (std::abs(after - before) > 8) != drawn ? 1 : 0;
              });
      EXPECT_EQ(wrong, 0);
    }
}

TEST_F(Scripts, HideTheFaces) {
  const std::pair<const char*, double> rates[] = {{"F25:1", 25.0}, {"F2:1", 2.0}};
  for (const auto& [name, rate] : rates) {
    SCOPED_TRACE(name);
    // Those that are lost since no more than a second stay hidden.
    std::vector<std::vector<FaceRect>> hidden = story;
    host::FaceNumbers numbers;
    for (size_t frame = 0; frame < story.size(); ++frame) {
      numbers.update(story[frame], static_cast<double>(frame) / rate);
      for (const auto& lost : numbers.lost())
        hidden[frame].push_back(lost.face);
    }
    const std::string script = folder_.file("boxes");
    const std::string video = clip(name);
    run({video, "--format", "blur-filter", "--output", script});
    int64_t wrong = 0;
    compare(filtered(video, {"-filter_script:v", script}), [&](size_t frame, int32_t x, int32_t y,
                                                               int before, int after) {
      if (std::ranges::none_of(hidden[frame], [&](const FaceRect& face) {
            return holds(host::withMargin(face), x, y);
          }))
        wrong += std::abs(after - before) > 3 ? 1 : 0;
      // Blocks that lie within a face have lost its stripes.
      else if (std::ranges::any_of(hidden[frame], [&](const FaceRect& face) {
                 return holds({face.left + 8, face.top + 8, face.right - 8, face.bottom - 8}, x, y);
               }))
        wrong += before == darkStripe && std::abs(after - before) < 10 ? 1 : 0;
    });
    EXPECT_EQ(wrong, 0);
  }
}

TEST_F(Scripts, LeaveAClipWithoutFacesAsItIs) {
  frames_.clear();
  frames_.push_back(plainFrame(width, height));
  frames_.push_back(plainFrame(width, height));
  const std::string video = clip("F25:1");
  for (const std::string format : {"ass", "draw-filter", "blur-filter"}) {
    const std::string script = folder_.file("boxes");
    run({video, "--format", format, "--output", script});
    compare(filtered(video, filterOptions(format, script)),
            [](size_t /*frame*/, int32_t /*x*/, int32_t /*y*/, int before, int after) {
              ASSERT_EQ(before, after);
            });
  }
}

TEST_F(Outputs, BlurHidesFacesAndThoseJustLost) {
  const std::string video = clip("F25:1");
  const std::string hidden = folder_.file("hidden.mkv");
  run({video, "--annotate", hidden, "--blur", "--output", nullDevice});
  const auto pictures = picturesOf(hidden);
  ASSERT_EQ(pictures.size(), story.size());
  for (size_t frame = 0; frame < story.size(); ++frame) {
    SCOPED_TRACE(frame);
    const I420Frame& picture = pictures[frame];
    const auto stepAt = [&](int32_t x, int32_t y) {
      const uint8_t* row = picture.planeData(0) + y * picture.planeStride(0);
      return std::abs(row[x] - row[x - 2 * picture.planeStride(0)]);
    };
    // The faces of the frame before are there no more, or elsewhere, and hidden all the same.
    for (const size_t shown : {frame, frame - std::min<size_t>(frame, 1)})
      for (const FaceRect& face : story[shown])
        for (int32_t y = face.top / 4 * 4 + 6; y < face.bottom - 2; y += 4)
          EXPECT_LT(stepAt((face.left + face.right) / 2, y), 25) << "row " << y;
    for (int32_t y = 6; y < 90; y += 4)
      EXPECT_NEAR(stepAt(78, y), darkStripe - background, 15) << "row " << y;
  }
}

int brightestOf(const I420Frame& picture) {
  int brightest = 0;
  for (int32_t y = 0; y < picture.height(); ++y)
    for (int32_t x = 0; x < picture.width(); ++x)
      brightest = std::max(brightest, int{picture.planeData(0)[y * picture.planeStride(0) + x]});
  return brightest;
}

TEST_F(Outputs, CropFacesWritesASquareForEachFace) {
  const std::string faces = folder_.file("new/folder");
  run({clip("F25:1"), "--crop-faces", faces, "--output", nullDevice});
  const struct {
    const char* name;
    int32_t side;
    int luma;  ///< of the face's middle
  } expected[] = {
      {"/face-0001.jpg", 60, 200}, {"/face-0002.jpg", 60, 230}, {"/face-0003.jpg", 44, 200}};
  for (const auto& [name, side, luma] : expected) {
    const auto pictures = picturesOf(faces + name);
    ASSERT_EQ(pictures.size(), 1U);
    EXPECT_EQ(std::pair(pictures[0].width(), pictures[0].height()), std::pair(side, side));
    EXPECT_NEAR(brightestOf(pictures[0]), luma, 15) << name;
  }
  const auto entries = std::filesystem::directory_iterator(host::pathFromUtf8(faces));
  EXPECT_EQ(std::distance(begin(entries), end(entries)), 3);
}

std::string fromBase64(const std::string& text) {
  const std::string letters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string bytes;
  uint32_t group = 0;
  int bits = 0;
  for (const char letter : text.substr(0, text.find('='))) {
    group = group << 6 | static_cast<uint32_t>(letters.find(letter));
    if ((bits += 6) >= 8)
      bytes += static_cast<char>(group >> (bits -= 8) & 255U);
  }
  return bytes;
}

TEST_F(Outputs, TheReportStandsAloneAndShowsEveryFace) {
  const std::string video = folder_.file("<b>&\"'.y4m");
  std::filesystem::rename(clip("F25:1"), video);
  const std::string report = folder_.file("report.html");
  run({video, "--report", report, "--output", nullDevice});
  const std::string page = contentOf(report);
  for (const char* foreign : {"://", "<script", "href", "<b>&"})
    EXPECT_EQ(page.find(foreign), std::string::npos) << foreign;
  EXPECT_NE(page.find("/&lt;b&gt;&amp;&quot;&#39;.y4m</title>"), std::string::npos);

  std::vector<std::string> jpegs;
  const std::string mark = "src=\"data:image/jpeg;base64,";
  for (size_t at = 0; (at = page.find(mark, at)) != std::string::npos;) {
    at += mark.size();
    jpegs.push_back(fromBase64(page.substr(at, page.find('"', at) - at)));
  }
  const int luma[] = {200, 230, 200};
  ASSERT_EQ(jpegs.size(), std::size(luma));
  for (size_t i = 0; i < jpegs.size(); ++i) {
    writeFile(folder_.file("face.jpg"), jpegs[i]);
    const auto pictures = picturesOf(folder_.file("face.jpg"));
    ASSERT_EQ(pictures.size(), 1U);
    EXPECT_NEAR(brightestOf(pictures[0]), luma[i], 15) << "face " << i + 1;
  }
  // The second face is there from 0.12 to 0.28 of the 0.36 seconds.
  const size_t second = page.find("<rect", page.find("<rect") + 1);
  EXPECT_NE(page.substr(second, 80).find(R"(x="352.0" y="30.0" width="384.0")"), std::string::npos)
      << page.substr(second, 80);
}

}  // namespace
}  // namespace tavro::test
