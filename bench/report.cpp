// Measures everything and writes it as JSON. bench/report builds this program and calls it; what it
// prints on the standard output are the start-up lines of the networks that it makes.
//
//   bench_report --model FILE --identity FILE --peers FOLDER --scratch FOLDER --module FILE
//                --probe FILE --output FILE [--effort FACTOR]

#include <sys/resource.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "bench/fma_peak.h"
#include "bench/report.h"
#include "engine/cpu_info.h"

namespace tavro::bench {

double Report::gigahertz() const {
  return peakGflops / fmaOperationsPerCycle;
}

double Report::shareOfPeak(double operations, const Timing& timing) const {
  return peakGflops > 0 && timing.median > 0 ? operations / timing.median / peakGflops : 0;
}

int ReportOptions::rounds(int usual) const {
  return std::max(3, static_cast<int>(std::lround(usual * effort)));
}

namespace {

using nlohmann::json;

#ifdef __clang__
constexpr const char* compiler = __VERSION__;
#else
constexpr const char* compiler = "GCC " __VERSION__;
#endif

json toJson(const Timing& timing) {
  return {{"median", timing.median},
          {"lowerQuartile", timing.lowerQuartile},
          {"upperQuartile", timing.upperQuartile},
          {"fastest", timing.fastest},
          {"runs", timing.runs}};
}

json toJson(const Report& report, const Row& row) {
  json result = {{"group", row.group}, {"name", row.name}, {"time", toJson(row.timing)}};
  if (!row.detail.empty())
    result["detail"] = row.detail;
  if (row.operations > 0) {
    result["gflops"] = row.operations / row.timing.median;
    if (report.peakGflops > 0)
      result["shareOfPeak"] = report.shareOfPeak(row.operations, row.timing);
  }
  if (row.cycles > 0) {
    result["operations"] = row.operations;
    result["bytes"] = row.bytes;
    result["bound"] = row.boundByArithmetic ? "arithmetic" : "memory";
    if (report.peakGflops > 0)
      result["shareOfBound"] = row.cycles / (row.timing.median * report.gigahertz());
  }
  result["peers"] = json::array();
  for (const PeerTime& peer : row.peers)
    result["peers"].push_back({{"name", peer.name},
                               {"time", toJson(peer.timing)},
                               {"ratio", row.timing.median / peer.timing.median}});
  return result;
}

json toJson(const Report& report) {
  const auto& cpu = TavroRTC::FDModule::cpuInfo();
  json result = {{"processor", cpu.brand},          {"compiler", compiler},
                 {"peakGflops", report.peakGflops}, {"bestPeakGflops", report.bestPeakGflops},
                 {"gigahertz", report.gigahertz()}, {"notes", report.notes},
                 {"rows", json::array()},           {"quantities", json::array()},
                 {"targets", json::array()},        {"checks", json::array()}};
  for (const Row& row : report.rows)
    result["rows"].push_back(toJson(report, row));
  for (const Quantity& quantity : report.quantities)
    result["quantities"].push_back(
        {{"name", quantity.name}, {"value", quantity.value}, {"unit", quantity.unit}});
  for (const Target& target : report.targets)
    result["targets"].push_back({{"name", target.name},
                                 {"value", target.value},
                                 {"goal", target.goal == Goal::atMost ? "at most" : "at least"},
                                 {"limit", target.limit},
                                 {"unit", target.unit},
                                 {"met", target.isMet()}});
  for (const Check& check : report.checks)
    result["checks"].push_back({{"name", check.name},
                                {"difference", check.difference},
                                {"limit", check.limit},
                                {"holds", check.holds()}});
  return result;
}

ReportOptions parse(int argc, char** argv) {
  ReportOptions options;
  const std::map<std::string, std::string*> texts = {{"--model", &options.peers.model},
                                                     {"--identity", &options.peers.identityModel},
                                                     {"--peers", &options.peers.peersFolder},
                                                     {"--scratch", &options.peers.scratchFolder},
                                                     {"--module", &options.module},
                                                     {"--probe", &options.probe},
                                                     {"--output", &options.output}};
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string name = argv[i];
    if (const auto text = texts.find(name); text != texts.end())
      *text->second = argv[i + 1];
    else if (name == "--effort")
      options.effort = std::strtod(argv[i + 1], nullptr);
    else
      throw std::runtime_error("unknown option " + name);
  }
  if (argc % 2 == 0 || options.output.empty() || !(options.effort > 0))
    throw std::runtime_error("see the top of report.cpp for its options");
  options.cores = usableCores();
  if (options.cores.empty())
    throw std::runtime_error("the system doesn't tell which cores may be used");
  return options;
}

/// True if all peers compute what we compute.
bool comparisonsHold(const Report& report) {
  bool hold = true;
  for (const Check& check : report.checks)
    if (!check.holds()) {
      std::cerr << "bench_report: " << check.name << ": differs by " << check.difference
                << ", more than " << check.limit << '\n';
      hold = false;
    }
  return hold;
}

constexpr int mostFavourable = -20;

int run(const ReportOptions& options) {
  const int core = options.cores.back();
  if (!pinToCore(core))
    throw std::runtime_error("can't stay on one core");
  // Other programs get the core less often, if this one may say so. The peers inherit it.
  static_cast<void>(setpriority(PRIO_PROCESS, 0, mostFavourable));
  Report report;
  const auto section = [&](const char* name, auto measure) {
    std::cerr << "Measuring " << name << '\n';
    measure(report, options);
  };
  section("the network and its layers", measureNetwork);
  section("scaling and conversion", measureImage);
  section("formats", measureFormats);
  section("decoding and tracking", measureDetection);
  section("whole frames", measureFrames);
  section("windows", measureWindows);
  section("two instances", measureTwoCores);
  section("the start", measureStart);
  std::ofstream file(options.output);
  file << toJson(report).dump(1) << '\n';
  if (!file.flush())
    throw std::runtime_error("can't write " + options.output);
  return comparisonsHold(report) ? 0 : 1;
}

}  // namespace
}  // namespace tavro::bench

int main(int argc, char** argv) {
  using namespace tavro::bench;
  try {
    return run(parse(argc, argv));
  } catch (const std::exception& error) {
    std::cerr << "bench_report: " << error.what() << '\n';
    return 2;
  }
}
