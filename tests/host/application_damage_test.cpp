// Files that are cut off or damaged: what can be decoded is analysed, and the exit code says that
// it isn't all.

#include <gtest/gtest.h>

#include "host/app/annotation.h"
#include "tests/host/application_runner.h"
#include "tests/support/traced_random.h"

namespace tavro::test {
namespace {

using host::I420Frame;

/// 40 frames of moving noise on a gradient, so that packets aren't all tiny.
std::vector<I420Frame> movingFrames(int count) {
  Random random(5);
  std::vector<I420Frame> frames;
  for (int i = 0; i < count; ++i) {
    auto frame = I420Frame::allocate(96, 64);
    for (int32_t plane = 0; plane < host::planeCount; ++plane)
      for (int32_t j = 0; j < frame->planeStride(plane) * frame->planeHeight(plane); ++j)
        frame->writablePlane(plane)[j] = static_cast<uint8_t>(random.between(0, 40) + j % 96 + i);
    frames.push_back(std::move(*frame));
  }
  return frames;
}

class Damage : public FileTest {
 protected:
  std::string video(const char* name) {
    const std::string path = folder_.file(name);
    std::string error;
    const auto sink =
        host::openVideoSink(path, {.width = 96, .height = 64, .frameRate = {25, 1}}, error);
    EXPECT_NE(sink, nullptr) << error;
    int index = 0;
    for (const I420Frame& frame : movingFrames(40))
      EXPECT_TRUE(sink->write(frame, index++ / 25.0, error)) << error;
    EXPECT_TRUE(sink->finish(error)) << error;
    return contentOf(path);
  }

  /// Some frames, but an exit code and a warning that tell of the rest.
  static void expectIncomplete(const std::string& path, size_t fewest, size_t most) {
    for (const bool piped : {false, true}) {
      SCOPED_TRACE(path + (piped ? " piped" : ""));
      const Outcome outcome = piped ? runWithFake({"-"}, path) : runWithFake({path});
      EXPECT_EQ(outcome.exitCode, 1) << outcome.errors;
      EXPECT_NE(outcome.errors.find("tavro-fd: warning: "), std::string::npos) << outcome.errors;
      EXPECT_GE(outcome.results().size(), fewest);
      EXPECT_LE(outcome.results().size(), most);
    }
  }
};

TEST_F(Damage, CutOffY4m) {
  const std::string whole = y4m(movingFrames(4));
  const std::string path = folder_.file("cut.y4m");
  const size_t frameSize = 6 + 96 * 64 * 3 / 2;
  // In a frame's samples, one sample before its end, and in the next frame's header.
  for (const size_t missing : {frameSize / 2, size_t{1}, frameSize - 3}) {
    writeFile(path, whole.substr(0, whole.size() - missing));
    expectIncomplete(path, 3, 3);
  }
  writeFile(path, whole.substr(0, whole.size() - frameSize));  // that's a whole file of 3
  EXPECT_EQ(runWithFake({path}).exitCode, 0);
}

TEST_F(Damage, CutOffVideo) {
  for (const char* name : {"cut.mp4", "cut.mkv"}) {
    const std::string whole = video(name);
    const std::string path = folder_.file(name);
    writeFile(path, whole);
    EXPECT_EQ(runWithFake({path}).exitCode, 0);
    writeFile(path, whole.substr(0, whole.size() * 6 / 10));
    expectIncomplete(path, 10, 39);
  }
}

TEST_F(Damage, OverwrittenVideo) {
  std::string content = video("holes.mp4");
  const std::string path = folder_.file("holes.mp4");
  const size_t middle = content.size() / 2;
  std::fill_n(content.begin() + static_cast<ptrdiff_t>(middle), content.size() / 10, '\x55');
  writeFile(path, content);
  expectIncomplete(path, 10, 40);
}

TEST_F(Damage, CutOffPictureIsBadInputOrIncomplete) {
  const std::string path = folder_.file("picture.png");
  std::string error;
  const auto sink = host::openPictureSink(path, {.width = 96, .height = 64}, error);
  ASSERT_NE(sink, nullptr);
  ASSERT_TRUE(sink->write(movingFrames(1).front(), 0.0, error));
  ASSERT_TRUE(sink->finish(error));
  const std::string whole = contentOf(path);
  for (const size_t eighths : {1U, 4U, 7U}) {
    writeFile(path, whole.substr(0, whole.size() * eighths / 8));
    const Outcome outcome = runWithFake({path});
    EXPECT_EQ(outcome.exitCode, outcome.results().empty() ? 2 : 1) << outcome.errors;
    EXPECT_NE(outcome.errors.find("tavro-fd: "), std::string::npos);
  }
}

TEST_F(Damage, NoiseNeverCrashesIt) {
  TracedRandom random;
  const std::string whole = video("fuzzed.mp4");
  const std::string path = folder_.file("fuzzed.mp4");
  for (int round = 0; round < 30; ++round) {
    std::string content = whole;
    for (int hits = random.between(1, 40); hits > 0; --hits)
      content[static_cast<size_t>(random.between(0, static_cast<int32_t>(content.size()) - 1))] =
          static_cast<char>(random.byte());
    writeFile(path, content);
    const Outcome outcome = runWithFake({path});
    EXPECT_TRUE(outcome.exitCode >= 0 && outcome.exitCode <= 2) << "round " << round;
    outcome.results();  // JSON to the last line
  }
}

}  // namespace
}  // namespace tavro::test
