// The start of a host: module, instance, first frame and memory, each time in a fresh process.

#include <map>
#include <nlohmann/json.hpp>

#include "bench/peers/child_process.h"
#include "bench/report_data.h"

namespace tavro::bench {
namespace {

constexpr int usualStarts = 25;
constexpr double mebibyte = 1024.0 * 1024.0;

}  // namespace

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
  addRow("first frame, 1280x720", values["firstFrame"]);
  addRow("later frame, 1280x720", values["laterFrame"]);

  const auto median = [&](const char* name) { return summarize(values[name]).median; };
  const double instance = median("secondInstanceBytes") / mebibyte;
  report.quantities.push_back(
      {"heap of the first instance, after a frame", median("instanceBytes") / mebibyte, "MiB"});
  report.quantities.push_back({"heap of another instance, after a frame", instance, "MiB"});
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
