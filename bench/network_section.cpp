// The network as a whole and layer by layer, on both paths, beside the peers that run its export
// and the arithmetic peak of the core.

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <optional>
#include <stdexcept>
#include <utility>

#include "bench/fma_peak.h"
#include "bench/network.h"
#include "bench/report.h"
#include "bench/scenes.h"
#include "impl_x86/twins.h"

namespace tavro::bench {
namespace {

using TavroRTC::FDModule::cpuInfo;
using TavroRTC::FDModule::Layer;

constexpr int64_t peakSteps = 20000;
constexpr int usualRounds = 60;
constexpr int runsPerTurn = 10;
constexpr uint32_t comparedPictures = 4;
constexpr double outputLimit = 1e-3;

/// Infinity if there is a NaN anywhere.
double largestDifference(const std::vector<float>& a, const std::vector<float>& b) {
  if (a.size() != b.size())
    return std::numeric_limits<double>::infinity();
  double largest = 0;
  for (size_t i = 0; i < a.size(); ++i) {
    const double difference = std::abs(static_cast<double>(a[i]) - static_cast<double>(b[i]));
    if (!(difference <= largest))
      largest = std::isnan(difference) ? std::numeric_limits<double>::infinity() : difference;
  }
  return largest;
}

double largestDifference(const NetworkOutputs& a, const NetworkOutputs& b) {
  return std::max(largestDifference(a.scores, b.scores), largestDifference(a.boxes, b.boxes));
}

/// A network whose layers are timed one by one while it passes through them.
class LayerClock {
 public:
  explicit LayerClock(Network& network, Path path)
      : network_(network), path_(path), layers_(network.workingLayers()), times_(layers_.size()) {}

  Contender contender(std::string name) {
    return inProcess(std::move(name), runsPerTurn, [this] { pass(); });
  }

  const std::vector<Layer*>& layers() const { return layers_; }
  Timing timing(size_t layer) const { return summarize(times_[layer]); }
  double sumOfMedians() const {
    double sum = 0;
    for (const RunTimes& times : times_)
      sum += summarize(times).median;
    return sum;
  }

 private:
  void pass() {
    const PathGuard guard(path_);
    double start = now();
    for (size_t i = 0; i < layers_.size(); ++i) {
      layers_[i]->forward(network_.net().env);
      const double end = now();
      times_[i].push_back(end - start);
      start = end;
    }
  }

  Network& network_;
  Path path_;
  std::vector<Layer*> layers_;
  std::vector<RunTimes> times_;
};

class NetworkSection {
 public:
  NetworkSection(Report& report, const ReportOptions& options)
      : report_(report),
        options_(options),
        picture_(samplePicture(0)),
        wide_(picture_, Path::wide),
        twins256_(picture_, Path::twins256),
        withoutTwins_(picture_, Path::withoutTwins),
        narrow_(picture_, Path::narrow) {
    if (auto onnxRuntime = makeOnnxRuntime(options.peers))
      peers_.push_back(std::move(onnxRuntime));
    else
      report.notes.emplace_back("ONNX Runtime isn't installed and is left out.");
    peers_.push_back(makeOpenCvNetwork(options.peers));
    idle_ = makeOnnxRuntimeIdentity(options.peers);
  }

  void measure() {
    for (const auto& peer : peers_)
      compare("network, " + peer->name(),
              [&](uint32_t seed) { return peer->outputs(planesOf(samplePicture(seed))); });
    compare("network, our path without AVX and FMA",
            [&](uint32_t seed) { return ownOutputs(narrow_, seed); });
    takeTimes();
    addRows();
    addTargets();
  }

 private:
  NetworkOutputs ownOutputs(Network& network, uint32_t seed) {
    std::ranges::copy(samplePicture(seed), picture_.begin());
    network.run();
    return {.scores = network.scores(), .boxes = network.boxes()};
  }

  /// `otherOutputs` returns another network's outputs for the picture of a seed.
  template <typename Outputs>
  void compare(std::string name, Outputs otherOutputs) {
    Check check{.name = std::move(name), .limit = outputLimit};
    for (uint32_t seed = 0; seed < comparedPictures; ++seed) {
      const double difference = largestDifference(ownOutputs(wide_, seed), otherOutputs(seed));
      check.difference = std::max(check.difference, difference);
    }
    report_.checks.push_back(std::move(check));
  }

  void takeTimes() {
    std::vector<Contender> contenders;
    const auto add = [&](Contender contender) {
      contenders.push_back(std::move(contender));
      return contenders.size() - 1;
    };
    const size_t wide = add(inProcess("wide", runsPerTurn, [this] { wide_.run(); }));
    const size_t narrow = add(inProcess("narrow", runsPerTurn, [this] { narrow_.run(); }));
    const size_t twins256 = add(inProcess("256", runsPerTurn, [this] { twins256_.run(); }));
    const size_t bare = add(inProcess("bare", runsPerTurn, [this] { withoutTwins_.run(); }));
    add(wideClock_.contender("wide, by layer"));
    add(narrowClock_.contender("narrow, by layer"));
    std::vector<size_t> peers;
    for (const auto& peer : peers_)
      peers.push_back(add({peer->name(), runsPerTurn,
                           [&peer](int runs, RunTimes& times) { peer->measure(runs, times); }}));
    std::optional<size_t> idle;
    if (idle_ != nullptr)
      idle = add({idle_->name(), runsPerTurn,
                  [this](int runs, RunTimes& times) { idle_->measure(runs, times); }});
    std::optional<size_t> peak;
    if (cpuInfo().runsAvxAndFma())
      peak = add(inProcess("peak", runsPerTurn, [this] { sink_ = fmaSteps(peakSteps); }));
    std::optional<size_t> peak512;
    // And the system saves the registers that hold the 512 bits and the masks.
    constexpr uint64_t states512 = 0xE6;
    if (cpuInfo().hasAvx512F() && (cpuInfo().savedStates & states512) == states512)
      peak512 = add(inProcess("peak 512", runsPerTurn, [this] { sink_ = fmaSteps512(peakSteps); }));

    const std::vector<Timing> timings = takeTurns(contenders, options_.rounds(usualRounds));
    wideTiming_ = timings[wide];
    twins256Timing_ = timings[twins256];
    withoutTwinsTiming_ = timings[bare];
    narrowTiming_ = timings[narrow];
    report_.quantities.push_back({"registers of the network's kernels",
                                  static_cast<double>(TavroRTC::FDModule::x86::registerBits()),
                                  "bits"});
    // Its library asks for AVX-512 F and the saved registers, and for AVX2 and FMA below that.
    if (!peers_.empty() && peers_.front()->name().starts_with("ONNX Runtime"))
      report_.quantities.push_back({"registers of ONNX Runtime's kernels, by what it asks for",
                                    peak512                                            ? 512.0
                                    : cpuInfo().hasAvx2() && cpuInfo().runsAvxAndFma() ? 256.0
                                                                                       : 128.0,
                                    "bits"});
    for (size_t i = 0; i < peers.size(); ++i)
      peerTimes_.push_back({peers_[i]->name(), timings[peers[i]]});
    if (idle)
      report_.quantities.push_back(
          {"ONNX Runtime, a call without work", timings[*idle].median / 1e3, "us"});
    const double operations = fmaOperationsPerStep * static_cast<double>(peakSteps);
    if (peak512) {
      report_.peak512Gflops = 2 * operations / timings[*peak512].median;
      report_.quantities.push_back(
          {"FMA peak with 512-bit registers", report_.peak512Gflops, "GFLOP/s"});
    }
    if (peak) {
      report_.peakGflops = operations / timings[*peak].median;
      report_.bestPeakGflops = operations / timings[*peak].fastest;
    }
  }

  double totalOperations() const {
    double sum = 0;
    for (const Layer* layer : wideClock_.layers())
      sum += workOf(*layer).operations;
    return sum;
  }

  void addRows() {
    double cycles = 0;
    double bytes = 0;
    for (size_t i = 0; i < wideClock_.layers().size(); ++i) {
      const Layer& layer = *wideClock_.layers()[i];
      const LayerWork work = workOf(layer);
      cycles += work.cycles();
      bytes += work.bytes;
      Row row{.group = "layer",
              .name = layer.name + " " + layer.type,
              .detail = work.shape,
              .timing = wideClock_.timing(i),
              .operations = work.operations,
              .bytes = work.bytes,
              .cycles = work.cycles(),
              .boundByArithmetic = work.isBoundByArithmetic(),
              .peers = {}};
      addLayerPeers(layer.name, row);
      report_.rows.push_back(std::move(row));
    }
    report_.rows.push_back(
        {.group = "network",
         .name = "Net::run",
         .detail = std::to_string(TavroRTC::FDModule::x86::registerBits()) + " bits",
         .timing = wideTiming_,
         .operations = totalOperations(),
         .bytes = bytes,
         .cycles = cycles,
         .boundByArithmetic = true,
         .peers = peerTimes_});
    const auto addPath = [&](const char* name, const Timing& timing) {
      std::vector<PeerTime> beside = peerTimes_;
      beside.insert(beside.begin(), {"Net::run", wideTiming_});
      report_.rows.push_back({.group = "network",
                              .name = name,
                              .detail = "",
                              .timing = timing,
                              .operations = totalOperations(),
                              .peers = std::move(beside)});
    };
    if (TavroRTC::FDModule::x86::registerBits() == 512)
      addPath("Net::run, twins of 256 bits only", twins256Timing_);
    addPath("Net::run without twins", withoutTwinsTiming_);
    addPath("Net::run without AVX and FMA, 128 bits", narrowTiming_);
    report_.quantities.push_back(
        {"sum of the layers' times", wideClock_.sumOfMedians() / wideTiming_.median, "x Net::run"});
  }

  /// Peers that tell their layers' times, and our own narrow path.
  void addLayerPeers(const std::string& name, Row& row) const {
    for (const auto& peer : peers_) {
      const auto times = peer->layerTimes();
      if (const auto found = times.find(name); found != times.end())
        row.peers.push_back({peer->name(), {.median = found->second}});
    }
    const auto& narrowLayers = narrowClock_.layers();
    for (size_t i = 0; i < narrowLayers.size(); ++i)
      if (narrowLayers[i]->name == name)
        row.peers.push_back({"without AVX and FMA", narrowClock_.timing(i)});
  }

  void addTargets() {
    for (const PeerTime& peer : peerTimes_)
      if (peer.name.starts_with("ONNX Runtime"))
        report_.targets.push_back({"Net::run against ONNX Runtime",
                                   wideTiming_.median / peer.timing.median, Goal::atMost,
                                   report_.has512BitUnits() ? 0.75 : 0.8, "x"});
    if (report_.has512BitUnits())
      report_.targets.push_back({"Net::run, share of the 512-bit FMA peak",
                                 totalOperations() / wideTiming_.median / report_.peak512Gflops,
                                 Goal::atLeast, 0.72, ""});
    else if (report_.peakGflops > 0)
      report_.targets.push_back({"Net::run, share of the FMA peak",
                                 report_.shareOfPeak(totalOperations(), wideTiming_), Goal::atLeast,
                                 0.85, ""});
    report_.targets.push_back({"the path without AVX and FMA against the wide one",
                               narrowTiming_.median / wideTiming_.median, Goal::atMost, 2.4, "x"});
  }

  Report& report_;
  const ReportOptions& options_;
  std::vector<uint8_t> picture_;
  Network wide_;
  Network twins256_;
  Network withoutTwins_;
  Network narrow_;
  LayerClock wideClock_{wide_, Path::wide};
  LayerClock narrowClock_{narrow_, Path::narrow};
  std::vector<std::unique_ptr<NetworkPeer>> peers_;
  std::unique_ptr<NetworkPeer> idle_;
  Timing wideTiming_;
  Timing twins256Timing_;
  Timing withoutTwinsTiming_;
  Timing narrowTiming_;
  std::vector<PeerTime> peerTimes_;
  volatile float sink_ = 0;
};

}  // namespace

void measureNetwork(Report& report, const ReportOptions& options) {
  NetworkSection(report, options).measure();
}

}  // namespace tavro::bench
