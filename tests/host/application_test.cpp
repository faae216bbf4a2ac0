// tavro-fd from the outside: what reaches the detector, what comes out, and how it says no.

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/host/application_runner.h"
#include "tests/host/fake_detector.h"
#include "tests/support/frames.h"
#include "tests/support/traced_random.h"

namespace tavro::test {
namespace {

using nlohmann::json;

json asJson(const std::vector<TavroRTC::FDModule::FaceRect>& faces) {
  json list = json::array();
  for (const auto& face : faces)
    list.push_back(
        {{"left", face.left}, {"top", face.top}, {"right", face.right}, {"bottom", face.bottom}});
  return list;
}

class Application : public FileTest {
 protected:
  /// A Y4M file of `count` small frames.
  std::string clip(int count) {
    Random random(1);
    std::string path = folder_.file("clip.y4m");
    writeFile(path, y4m(randomFrames(random, count, 32, 18)));
    return path;
  }
};

TEST_F(Application, Yuv420pReachesTheDetectorByteForByte) {
  TracedRandom random;
  for (const auto& [width, height] :
       {std::pair{1, 1}, {2, 2}, {3, 5}, {16, 16}, {33, 17}, {161, 91}, {640, 360}}) {
    SCOPED_TRACE(testing::Message() << width << "x" << height);
    const auto frames = randomFrames(random, 3, width, height);
    const std::string path = folder_.file("clip.y4m");
    writeFile(path, y4m(frames));
    for (const bool piped : {false, true}) {
      const Outcome outcome = piped ? runWithFake({"-"}, path) : runWithFake({path});
      EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
      const auto results = outcome.results();
      ASSERT_EQ(results.size(), frames.size());
      for (size_t i = 0; i < results.size(); ++i) {
        EXPECT_EQ(results[i]["frame"], i);
        EXPECT_NEAR(results[i]["time"], static_cast<double>(i) / 25, 1e-6);
        EXPECT_EQ(results[i]["width"], width);
        EXPECT_EQ(results[i]["height"], height);
        EXPECT_EQ(results[i]["faces"], asJson(fakeFaces(frames[i])));
        EXPECT_GE(results[i]["ms"], 0.0);
      }
    }
  }
}

TEST_F(Application, ModuleDiagnosticsStayOutOfTheResults) {
  const Outcome outcome = runWithFake({clip(2)});
  EXPECT_EQ(outcome.results().size(), 2U);
  EXPECT_EQ(outcome.errors, "fake: prepared\nfake: frame of 32 x 18\nfake: frame of 32 x 18\n");

  const std::string file = folder_.file("faces.jsonl");
  const Outcome toFile = runWithFake({clip(2), "--output", file});
  EXPECT_EQ(toFile.exitCode, 0);
  EXPECT_EQ(toFile.output, "");
  // The same but for the timings.
  const auto direct = outcome.results();
  const auto stored = Outcome{.exitCode = 0, .output = contentOf(file), .errors = ""}.results();
  ASSERT_EQ(stored.size(), direct.size());
  for (size_t i = 0; i < stored.size(); ++i)
    EXPECT_EQ(stored[i]["faces"], direct[i]["faces"]);
}

TEST_F(Application, EveryMaxFramesAndRepeatPickFrames) {
  const std::string path = clip(10);
  const struct {
    std::vector<std::string> options;
    std::vector<int> frames;
  } cases[] = {
      {{"--every", "4"}, {0, 4, 8}},
      {{"--every", "100"}, {0}},
      {{"--max-frames", "3"}, {0, 1, 2}},
      {{"--max-frames", "5", "--every", "2"}, {0, 2, 4}},
      {{"--max-frames", "1000", "--every", "5"}, {0, 5}},
      {{"--max-frames", "2", "--repeat", "3"}, {0, 1}},
  };
  for (const auto& [options, expected] : cases) {
    std::vector<std::string> arguments = {path};
    arguments.insert(arguments.end(), options.begin(), options.end());
    std::vector<int> frames;
    for (const json& result : resultsOf(arguments, expected.size()))
      frames.push_back(result["frame"]);
    EXPECT_EQ(frames, expected);
  }
}

TEST_F(Application, StatisticsCountEveryPass) {
  const Outcome outcome = runWithFake({clip(10), "--every", "2", "--repeat", "3", "--stats"});
  EXPECT_EQ(outcome.exitCode, 0);
  EXPECT_EQ(outcome.results().size(), 5U);
  for (const char* part : {"30 decoded, 15 analysed", "min ", "median ", "p99 ", "max ",
                           "frames per second", "peak memory", "MiB"})
    EXPECT_NE(outcome.errors.find(part), std::string::npos) << part << " in " << outcome.errors;
}

TEST_F(Application, BadUsageIsOneLineAndExitCode2) {
  const std::string path = clip(2);
  const std::string noVideo = folder_.file("tone.wav");
  writeFile(noVideo, std::string("RIFF\x2c\0\0\0WAVEfmt \x10\0\0\0\1\0\1\0\x40\x1f\0\0\x80\x3e\0\0"
                                 "\2\0\x10\0data\x08\0\0\0\0\0\0\0\0\0\0\0",
                                 52));
  const std::string headerOnly = folder_.file("empty.y4m");
  writeFile(headerOnly, "YUV4MPEG2 W32 H18 F25:1\n");
  writeFile(folder_.file("linked.mp4"), "");
  std::filesystem::create_hard_link(host::pathFromUtf8(folder_.file("linked.mp4")),
                                    host::pathFromUtf8(folder_.file("link.mp4")));
  const struct {
    std::vector<std::string> arguments;
    std::string cause = {};
  } cases[] = {
      {{}},
      {{path, "--no-such-option"}},
      {{path, "extra"}, "unexpected argument extra "},
      {{path, "--every", "0"}, "--every: must be a whole number from 1 to 1000000000, not 0 "},
      {{path, "--every", "-3"}},
      {{path, "--every", "two"}},
      {{path, "--every", "99999999999999999999"}},
      {{path, "--max-frames", "0"}},
      {{path, "--output", "o.mp4", "--annotate", "./o.mp4"}},
      {{path, "--output", folder_.file("link.mp4"), "--annotate", folder_.file("linked.mp4")}},
      {{path, "--repeat", "0"}},
      {{path, "--format", "xml"}},
      {{path, "--blur"}},
      {{path, "--blur", "--every", "2", "--annotate", "b.png"}},
      {{path, "--blur", "--crop-faces", "faces", "--annotate", "b.png"}},
      {{path, "--format", "blur-filter", "--every", "2"}},
      {{path, "--crop-faces", "/dev/null/faces"}},
      {{path, "--crop-faces", ""}},
      {{path, "--blur", "--report", "r.html", "--annotate", "b.png"}},
      {{path, "--report", "r.html", "--output", "r.html"}},
      {{path, "--report", "/nowhere/r.html"}},
      {{path, "--serve", "80 80"}},
      {{path, "--serve", "elsewhere.example:80"}},
      {{path, "--serve", "[::1:80"}},
      {{path, "--serve", "192.0.2.1:0"}},  // no address of this machine
      {{path, "--annotate", "boxes.txt"}},
      {{path, "--annotate", path}},
      {{path, "--output", path}},
      {{path, "--output", "/nowhere/faces.jsonl"}},
      {{path, "--annotate", "/nowhere/boxes.mp4"}},
      {{path, "--annotate", "/nowhere/boxes.png"}},
      {{path, "--input-format", "no-such-format"}},
      {{path, "--input-option", "novalue"}},
      {{path, "--input-option", "no_such_option=1"}},
      {{"-", "--repeat", "2"}},
      {{"-"}},  // nothing comes in
      {{folder_.file("missing.mp4")}},
      {{folder_.file("")}},
      {{""}},
      {{noVideo}},
      {{headerOnly}},
      {{"-x.jpg"}, "unknown option -x.jpg "},
  };
  for (auto [arguments, cause] : cases) {
    // A module that prints lines of its own: they must not hide the application's.
    arguments.insert(arguments.end(), {"--module", FAKE_GOOD_FILE});
    SCOPED_TRACE(testing::PrintToString(arguments));
    const Outcome outcome = runApplication(arguments);
    EXPECT_EQ(outcome.exitCode, 2);
    EXPECT_TRUE(outcome.hasOneErrorLine()) << outcome.errors;
    EXPECT_NE(outcome.errors.find(cause), std::string::npos) << outcome.errors;
    EXPECT_EQ(outcome.output, "");
  }
  // An input that was named as an output is still there.
  resultsOf({path}, 2);
}

TEST_F(Application, BadModulesAreOneLineAndExitCode2) {
  const std::string path = clip(1);
  for (const char* module : {"/nowhere/module.so", FAKE_SILENT_FILE, FAKE_POOR_FILE}) {
    const Outcome outcome = runApplication({path, "--module", module});
    EXPECT_EQ(outcome.exitCode, 2);
    EXPECT_TRUE(outcome.hasOneErrorLine()) << outcome.errors;
  }
  const Outcome unready = runApplication({path, "--module", FAKE_UNREADY_FILE});
  EXPECT_EQ(unready.exitCode, 2);
  EXPECT_EQ(unready.errors, "fake: prepared\ntavro-fd: the detector can't be prepared\n");
}

TEST_F(Application, RefusedFramesGiveEmptyResultsAndOneWarning) {
  const Outcome outcome = runApplication({clip(3), "--module", FAKE_REFUSING_FILE});
  EXPECT_EQ(outcome.exitCode, 1);
  const auto results = outcome.results();
  ASSERT_EQ(results.size(), 3U);
  for (const json& result : results)
    EXPECT_EQ(result["faces"], json::array());
  EXPECT_NE(outcome.errors.find("tavro-fd: warning: the detector refused 3 frames\n"),
            std::string::npos);
}

TEST_F(Application, HelpAndVersionGoToTheStandardOutput) {
  const Outcome help = runApplication({"--help"});
  EXPECT_EQ(help.exitCode, 0);
  EXPECT_EQ(help.errors, "");
  for (const char* part : {"--annotate", "--every", "Examples:", "Exit codes:"})
    EXPECT_NE(help.output.find(part), std::string::npos) << part;
  const Outcome version = runApplication({"--version"});
  EXPECT_EQ(version.exitCode, 0);
  EXPECT_TRUE(version.output.starts_with("tavro-fd "));
}

#if defined(REAL_MODULE_FILE)
TEST_F(Application, FindsTheDetectorBesideIt) {
  const Outcome outcome = runApplication({clip(4)});
  EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
  EXPECT_EQ(outcome.results().size(), 4U);

  // Wider than the detector takes: an answer for every frame all the same.
  Random random(1);
  const std::string wide = folder_.file("wide.y4m");
  writeFile(wide, y4m(randomFrames(random, 2, 32770, 2)));
  const Outcome refused = runApplication({wide});
  EXPECT_EQ(refused.exitCode, 1);
  EXPECT_EQ(refused.results().size(), 2U);
  EXPECT_NE(refused.errors.find("refused 2 frames"), std::string::npos) << refused.errors;
}
#endif

}  // namespace
}  // namespace tavro::test
