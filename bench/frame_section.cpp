// What a frame costs beyond its picture and the network: what follows the network, on a scene of
// six faces; whole frames as the host hands them to an instance, beside OpenCV on the same network
// and on two cores at once; and the start of a host, each time in a fresh process.

#include <array>
#include <barrier>
#include <map>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <thread>

#include "bench/peers/child_process.h"
#include "bench/report.h"
#include "bench/scenes.h"
#include "host/core/face_rects.h"
#include "modules/face_detection/fd_wrapper.h"
#include "modules/face_detection/frame_analysis.h"

namespace tavro::bench {
namespace {

using namespace TavroRTC::FDModule;

constexpr FrameSize usualSize = {1280, 720};
constexpr int usualRounds = 20;
constexpr int runsPerTurn = 5;
constexpr int usualWindows = 15;
constexpr double windowLength = 150e6;
constexpr int usualStarts = 25;
constexpr double mebibyte = 1024.0 * 1024.0;

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
  const auto peer = makeOpenCvFrame(options.peers, own.frame());
  const std::array<Contender, 2> contenders = {
      inProcess("own", runsPerTurn, [&] { own.run(); }),
      inProcess(peer->name(), runsPerTurn, [&] { peer->run(); })};
  const std::vector<Timing> timings = takeTurns(contenders, options.rounds(usualRounds));
  report.rows.push_back(
      {.group = "frame",
       .name = "whole frame " + std::to_string(size.width) + "x" + std::to_string(size.height),
       .detail = "",
       .timing = timings[0],
       .peers = {{peer->name(), timings[1]}}});
  constexpr double fastCore = 200;  // GFLOP/s
  if (size.width == usualSize.width && report.peak512Gflops > fastCore)
    report.targets.push_back(
        {"whole frame 1280x720", timings[0].median / 1e6, Goal::atMost, 0.55, "ms"});
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

void measureDetection(Report& report, const ReportOptions& options) {
  constexpr int rounds = 60;
  constexpr int shortRuns = 50;
  constexpr uint32_t moments = 16;
  std::vector<FaceScene> scenes;
  for (uint32_t moment = 0; moment < moments; ++moment)
    scenes.emplace_back(moment);
  PostProcessing tracked;
  uint32_t frame = 0;
  size_t faces = 0;
  const auto nextFrame = [&] { faces = tracked.frame(scenes[frame++ % moments], usualSize); };

  BoxDecoder decoder;
  decoder.keepLimit = defaultKeepLimit;
  decoder.scoreThreshold = defaultThreshold;
  const FaceScene& scene = scenes[0];
  const std::array<Contender, 3> contenders = {
      inProcess("decode, suppress, track, six faces", shortRuns, nextFrame),
      inProcess("of it the priors", shortRuns, [&] { generatePriors(decoder.priors); }),
      inProcess("of it decoding and suppression", shortRuns, [&] {
        decoder.decode(usualSize.width, usualSize.height, scene.boxes.data(), scene.scores.data());
      })};
  const std::vector<Timing> timings = takeTurns(contenders, options.rounds(rounds));
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

void measureFrames(Report& report, const ReportOptions& options) {
  for (const FrameSize size : frameSizes)
    measureSize(report, options, size);
}

void measureTwoCores(Report& report, const ReportOptions& options) {
  if (options.cores.size() < 2) {
    report.notes.emplace_back("There is one core only: two instances side by side are left out.");
    return;
  }
  Instance first(usualSize);
  Instance second(usualSize);
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

void measureStart(Report& report, const ReportOptions& options) {
  std::map<std::string, RunTimes> values;
  RunTimes starts;
  RunTimes firstToLater;
  for (int i = 0; i < options.rounds(usualStarts); ++i) {
    ChildProcess probe({options.probe, options.module});
    const auto answer = nlohmann::json::parse(probe.ask("start"));
    for (const auto& [name, value] : answer.items())
      values[name].push_back(value.get<double>());
    starts.push_back(values["load"].back() + values["init"].back());
    firstToLater.push_back(values["firstFrame"].back() / values["laterFrame"].back());
  }

  const auto addRow = [&](const char* name, const RunTimes& times) {
    report.rows.push_back(
        {.group = "start", .name = name, .detail = "", .timing = summarize(times), .peers = {}});
  };
  addRow("module load and FDWrapper::init", starts);
  addRow("of it the load", values["load"]);
  addRow("first frame, 1280x720, processor time", values["firstFrame"]);
  addRow("later frame, 1280x720, processor time", values["laterFrame"]);

  const auto median = [&](const char* name) { return summarize(values[name]).median; };
  const double instance = median("secondInstanceBytes") / mebibyte;
  report.quantities.push_back(
      {"memory of the first instance, after a frame", median("instanceBytes") / mebibyte, "MiB"});
  report.quantities.push_back({"memory of another instance, after a frame", instance, "MiB"});
  report.quantities.push_back({"resident memory of module, instance and frames",
                               median("residentBytes") / mebibyte, "MiB"});
  report.quantities.push_back({"page faults in the first frame", median("firstFrameFaults"), ""});
  report.quantities.push_back(
      {"allocations in a later frame without faces", median("allocationsPerFrame"), ""});
  report.targets.push_back(
      {"module load and FDWrapper::init", summarize(starts).median / 1e6, Goal::atMost, 2, "ms"});
  report.targets.push_back(
      {"first frame against a later one", summarize(firstToLater).median, Goal::atMost, 2.5, "x"});
  report.targets.push_back(
      {"memory of an instance", median("instanceBytes") / mebibyte, Goal::atMost, 8, "MiB"});
}

}  // namespace tavro::bench
