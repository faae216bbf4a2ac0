// What follows the network: priors, decoding, suppression and tracking on a scene of six faces.

#include <array>
#include <stdexcept>

#include "bench/report_data.h"
#include "bench/scenes.h"
#include "modules/face_detection/frame_analysis.h"

namespace tavro::bench {
namespace {

using TavroRTC::FDModule::BoxDecoder;
using TavroRTC::FDModule::generatePriors;

constexpr int usualRounds = 60;
constexpr int runsPerTurn = 50;
constexpr uint32_t moments = 16;
constexpr FrameSize size = {1280, 720};

}  // namespace

void measureDetection(Report& report, const ReportOptions& options) {
  std::vector<FaceScene> scenes;
  for (uint32_t moment = 0; moment < moments; ++moment)
    scenes.emplace_back(moment);
  PostProcessing tracked;
  uint32_t frame = 0;
  size_t faces = 0;
  const auto nextFrame = [&] { faces = tracked.frame(scenes[frame++ % moments], size); };

  BoxDecoder decoder;
  decoder.keepLimit = TavroRTC::FDModule::defaultKeepLimit;
  decoder.scoreThreshold = TavroRTC::FDModule::defaultThreshold;
  const FaceScene& scene = scenes[0];
  const std::array<Contender, 3> contenders = {
      inProcess("decode, suppress, track, six faces", runsPerTurn, nextFrame),
      inProcess("of it the priors", runsPerTurn, [&] { generatePriors(decoder.priors); }),
      inProcess("of it decoding and suppression", runsPerTurn, [&] {
        decoder.decode(size.width, size.height, scene.boxes.data(), scene.scores.data());
      })};
  const std::vector<Timing> timings = takeTurns(contenders, options.rounds(usualRounds));
  if (faces != sceneFaces)
    throw std::runtime_error("the tracker follows " + std::to_string(faces) + " faces, not six");
  for (size_t i = 0; i < contenders.size(); ++i)
    report.rows.push_back({.group = "detection",
                           .name = contenders[i].name,
                           .detail = "",
                           .timing = timings[i],
                           .peers = {}});
  report.targets.push_back({"decoding, suppression and tracking of six faces, priors included",
                            timings[0].median / 1e3, Goal::atMost, 25, "us"});
}

}  // namespace tavro::bench
