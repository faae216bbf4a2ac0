// Whole frames, as the host hands them to an instance: at the usual sizes beside OpenCV on the same
// network, and on two cores at the same time.

#include <time.h>

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

/// How many frames an instance does in a second of the clock, and in one of its own processor time,
/// which leaves out what other programs take from the core.
struct Rate {
  double byClock = 0;
  double byProcessor = 0;

  Rate operator+(const Rate& other) const {
    return {byClock + other.byClock, byProcessor + other.byProcessor};
  }
};

double processorTime() {
  timespec time = {};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
}

/// Lets an instance run on a core for a window of time.
Rate runWindow(Instance& instance, int core) {
  pinToCore(core);
  instance.run();
  const double processorStart = processorTime();
  const double start = now();
  double end = start;
  int frames = 0;
  for (; end - start < windowLength; ++frames) {
    instance.run();
    end = now();
  }
  return {frames / (end - start) * 1e9, frames / (processorTime() - processorStart) * 1e9};
}

/// Medians of the windows, by clock and by processor time.
Rate medianOf(const std::vector<Rate>& rates) {
  RunTimes byClock;
  RunTimes byProcessor;
  for (const Rate& rate : rates) {
    byClock.push_back(rate.byClock);
    byProcessor.push_back(rate.byProcessor);
  }
  return {summarize(byClock).median, summarize(byProcessor).median};
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
  std::vector<Rate> alone;
  std::vector<Rate> together;
  for (int window = 0; window < options.rounds(usualWindows); ++window) {
    // Each core has its turn alone, since they needn't be equally fast.
    std::array<Rate, 2> rates;
    for (size_t core = 0; core < 2; ++core)
      std::thread([&] { rates[core] = runWindow(first, options.cores[core]); }).join();
    alone.push_back(rates[0] + rates[1]);

    std::barrier start(2);
    const auto run = [&](size_t lane, Instance& instance) {
      start.arrive_and_wait();
      rates[lane] = runWindow(instance, options.cores[lane]);
    };
    std::thread other(run, 1, std::ref(second));
    std::thread(run, 0, std::ref(first)).join();
    other.join();
    together.push_back(rates[0] + rates[1]);
  }
  const Rate sum = medianOf(alone);
  const Rate both = medianOf(together);
  report.quantities.push_back({"one instance, 1280x720", sum.byClock / 2, "frames/s"});
  report.quantities.push_back({"two instances on two cores, 1280x720", both.byClock, "frames/s"});
  report.quantities.push_back({"two instances on two cores, by their own processor time",
                               2 * both.byProcessor / sum.byProcessor, "x"});
  report.targets.push_back(
      {"two instances on two cores", 2 * both.byClock / sum.byClock, Goal::atLeast, 1.9, "x"});
}

}  // namespace tavro::bench
