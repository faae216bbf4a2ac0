// Scaling and conversion of a frame to the network's picture, beside OpenCV and swscale.

#include <cstdlib>
#include <memory>

#include "bench/image_step.h"
#include "bench/peers/peers.h"
#include "bench/report_data.h"
#include "bench/scenes.h"

namespace tavro::bench {
namespace {

constexpr int usualRounds = 40;
constexpr int runsPerTurn = 5;

// The mean over all bytes of the sample frame's picture. The arithmetic differs from peer to peer
// by a few levels and so does the place of the chroma samples: two ways through OpenCV alone are 3
// levels apart. A picture that is wrong by one pixel down and to the right is 12 levels off.
constexpr double pictureLimit = 6;

double meanDifference(std::span<const uint8_t> a, std::span<const uint8_t> b) {
  double sum = a.size() == b.size() ? 0 : 1e9;
  for (size_t i = 0; i < std::min(a.size(), b.size()); ++i)
    sum += std::abs(a[i] - b[i]);
  return sum / static_cast<double>(a.size());
}

void measureSize(Report& report, const ReportOptions& options, FrameSize size) {
  const std::string label = std::to_string(size.width) + "x" + std::to_string(size.height);
  const host::I420Frame frame = sampleFrame(size);
  ImageStep own(frame);
  own.run();

  std::vector<std::unique_ptr<ImagePeer>> peers;
  for (auto make : {makeOpenCvImage, makeOpenCvImageColorsFirst, makeSwscale})
    if (auto peer = make(frame))
      peers.push_back(std::move(peer));
  std::vector<Contender> contenders = {inProcess("own", runsPerTurn, [&] { own.run(); })};
  for (const auto& peer : peers) {
    peer->run();
    report.checks.push_back(
        {.name = "picture of " + label + ", " + peer->name() + ", mean of levels",
         .difference = meanDifference(own.picture(), peer->picture()),
         .limit = pictureLimit});
    contenders.push_back(inProcess(peer->name(), runsPerTurn, [&peer] { peer->run(); }));
  }

  const std::vector<Timing> timings = takeTurns(contenders, options.rounds(usualRounds));
  Row row{.group = "image",
          .name = "scale and convert " + label,
          .detail = "",
          .timing = timings[0],
          .peers = {}};
  for (size_t i = 0; i < peers.size(); ++i)
    row.peers.push_back({peers[i]->name(), timings[i + 1]});
  if (!row.peers.empty() && row.peers[0].name.starts_with("OpenCV"))
    report.targets.push_back({row.name + " against OpenCV", timings[0].median / timings[1].median,
                              Goal::atMost, 0.6, "x"});
  report.rows.push_back(std::move(row));
}

}  // namespace

void measureImage(Report& report, const ReportOptions& options) {
  for (const FrameSize size : frameSizes)
    measureSize(report, options, size);
}

}  // namespace tavro::bench
