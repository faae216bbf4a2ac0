// Whole frames, as the host hands them to an instance: at the usual sizes beside OpenCV on the same
// network, and on two cores at the same time.

#include <array>
#include <barrier>
#include <memory>
#include <stdexcept>
#include <thread>

#include "bench/peers/peers.h"
#include "bench/report_data.h"
#include "bench/scenes.h"
#include "host/core/face_rects.h"
#include "modules/face_detection/fd_wrapper.h"

namespace tavro::bench {
namespace {

using TavroRTC::FDModule::FDWrapper;

constexpr int usualRounds = 20;
constexpr int runsPerTurn = 5;
constexpr int usualWindows = 15;
constexpr double windowLength = 150e6;
constexpr FrameSize windowSize = {1280, 720};

/// An instance with a frame to run on.
class Instance {
 public:
  explicit Instance(FrameSize size) : frame_(sampleFrame(size)) {
    if (!wrapper_.init())
      throw std::runtime_error("an instance can't be initialised");
    run();
  }

  void run() {
    if (!wrapper_.execute(&frame_, faces_.sequence()))
      throw std::runtime_error("an instance refuses the sample frame");
  }

  const host::I420Frame& frame() const { return frame_; }

 private:
  host::I420Frame frame_;
  host::FaceRects faces_;
  FDWrapper wrapper_;
};

void measureSize(Report& report, const ReportOptions& options, FrameSize size) {
  Instance own(size);
  const PeerSetup setup{.model = options.model,
                        .peersFolder = options.peersFolder,
                        .scratchFolder = options.scratchFolder,
                        .identityModel = {}};
  const auto peer = options.model.empty() ? nullptr : makeOpenCvFrame(setup, own.frame());
  std::vector<Contender> contenders = {inProcess("own", runsPerTurn, [&] { own.run(); })};
  if (peer != nullptr)
    contenders.push_back(inProcess(peer->name(), runsPerTurn, [&] { peer->run(); }));

  const std::vector<Timing> timings = takeTurns(contenders, options.rounds(usualRounds));
  Row row{.group = "frame",
          .name = "whole frame " + std::to_string(size.width) + "x" + std::to_string(size.height),
          .detail = "",
          .timing = timings[0],
          .peers = {}};
  if (peer != nullptr)
    row.peers.push_back({peer->name(), timings[1]});
  report.rows.push_back(std::move(row));
}

/// Frames a second of an instance that has a core for a window of time.
double framesPerSecond(Instance& instance, int core) {
  pinToCore(core);
  instance.run();
  const double start = now();
  double end = start;
  int frames = 0;
  for (; end - start < windowLength; ++frames) {
    instance.run();
    end = now();
  }
  return frames / (end - start) * 1e9;
}

}  // namespace

void measureFrames(Report& report, const ReportOptions& options) {
  for (const FrameSize size : frameSizes)
    measureSize(report, options, size);
}

void measureTwoCores(Report& report, const ReportOptions& options) {
  if (options.cores.size() < 2) {
    report.notes.emplace_back("There is one core only: two instances side by side are left out.");
    return;
  }
  Instance first(windowSize);
  Instance second(windowSize);
  RunTimes alone;
  RunTimes together;
  for (int window = 0; window < options.rounds(usualWindows); ++window) {
    // Each core has its turn alone, since they needn't be equally fast.
    double sum = 0;
    for (size_t core = 0; core < 2; ++core)
      std::thread([&] { sum += framesPerSecond(first, options.cores[core]); }).join();
    alone.push_back(sum / 2);

    std::barrier start(2);
    std::array<double, 2> rates = {};
    const auto run = [&](size_t lane, Instance& instance) {
      start.arrive_and_wait();
      rates[lane] = framesPerSecond(instance, options.cores[lane]);
    };
    std::thread other(run, 1, std::ref(second));
    std::thread(run, 0, std::ref(first)).join();
    other.join();
    together.push_back(rates[0] + rates[1]);
  }
  const double one = summarize(alone).median;
  const double two = summarize(together).median;
  report.quantities.push_back({"one instance, 1280x720", one, "frames/s"});
  report.quantities.push_back({"two instances on two cores, 1280x720", two, "frames/s"});
  report.targets.push_back({"two instances on two cores", two / one, Goal::atLeast, 1.9, "x"});
}

}  // namespace tavro::bench
