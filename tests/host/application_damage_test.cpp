// Files that are cut off or damaged: what can be decoded is analysed, and the exit code says that
// it isn't all.

#include <gtest/gtest.h>

#include "tests/host/application_runner.h"
#include "tests/support/traced_random.h"

namespace tavro::test {
namespace {

class Damage : public FileTest {
 protected:
  /// 40 frames of noise, so that packets aren't tiny.
  std::string video(const char* name) {
    Random random(5);
    const std::string path = folder_.file(name);
    writeMedia(path, randomFrames(random, 40, 96, 64));
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
  Random random(5);
  const std::string whole = y4m(randomFrames(random, 4, 96, 64));
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
  Random random(5);
  writeMedia(path, randomFrames(random, 1, 96, 64));
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
