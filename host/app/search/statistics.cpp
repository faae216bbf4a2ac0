#include "host/app/search/statistics.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <numeric>

#include "host/app/platform/process.h"

namespace tavro::host {

namespace {

double perSecond(size_t count, double seconds) {
  return seconds > 0.0 ? static_cast<double>(count) / seconds : 0.0;
}

constexpr std::chrono::milliseconds interval{100};
constexpr const char* eraseLine = "\r\033[K";

}  // namespace

TimingSummary summarize(std::vector<double> values) {
  if (values.empty())
    return {};
  std::sort(values.begin(), values.end());
  const size_t count = values.size();
  const auto rank = static_cast<size_t>(std::ceil(0.99 * static_cast<double>(count)));
  return {.minimum = values.front(),
          .median = std::midpoint(values[(count - 1) / 2], values[count / 2]),
          .p99 = values[rank - 1],
          .maximum = values.back()};
}

void RunStatistics::addWindows(std::span<const WindowReport> reports) {
  if (!std::ranges::equal(windows_, reports, {}, &WindowTimes::window, &WindowReport::window)) {
    windows_.clear();
    for (const WindowReport& report : reports)
      windows_.push_back({.window = report.window, .milliseconds = {}});
  }
  for (size_t i = 0; i < reports.size(); ++i)
    if (reports[i].hasRun)
      windows_[i].milliseconds.push_back(reports[i].milliseconds);
}

std::string RunStatistics::report() const {
  const TimingSummary timing = summarize(milliseconds);
  const double detecting = std::accumulate(milliseconds.begin(), milliseconds.end(), 0.0) / 1000.0;
  char text[512];
  std::snprintf(text, sizeof text,
                "frames       %lld decoded, %zu analysed\n"
                "per frame    min %.3f ms, median %.3f ms, p99 %.3f ms, max %.3f ms\n"
                "throughput   %.1f frames per second, %.1f by the detector alone\n"
                "peak memory  %.1f MiB\n",
                static_cast<long long>(decodedFrames), milliseconds.size(), timing.minimum,
                timing.median, timing.p99, timing.maximum,
                perSecond(static_cast<size_t>(decodedFrames), seconds),
                perSecond(milliseconds.size(), detecting), peakMebibytes());
  std::string lines = text;
  if (windows_.size() > 1) {
    std::snprintf(text, sizeof text, "windows      %zu, for faces of %d pixels and more\n",
                  windows_.size(), smallestFace);
    lines += text;
  }
  for (const auto& [window, times] : windows_) {
    const TimingSummary taken = summarize(times);
    std::snprintf(text, sizeof text,
                  "%5dx%-5d at %5d,%-5d  median %.3f ms, max %.3f ms, %zu frames\n", window.width,
                  window.height, window.x, window.y, taken.median, taken.maximum, times.size());
    if (windows_.size() > 1)
      lines += text;
  }
  return lines;
}

ProgressLine::ProgressLine()
    : enabled_(isTerminal(stderr)), next_(std::chrono::steady_clock::now() + interval) {}

void ProgressLine::erase() {
  if (shown_)
    std::fputs(eraseLine, stderr);
  shown_ = false;
}

void ProgressLine::beginInput(size_t number, size_t count) {
  input_ = std::to_string(number) + " of " + std::to_string(count) + " inputs";
  update(0, 0);
}

void ProgressLine::update(int64_t done, int64_t total) {
  if (!enabled_ || (total <= 1 && input_.empty()))
    return;
  const auto now = std::chrono::steady_clock::now();
  if (now < next_)
    return;
  next_ = now + interval;
  shown_ = true;
  std::fprintf(stderr, "%stavro-fd: %s", eraseLine, input_.c_str());
  if (total <= 1)
    return;
  const double percent =
      std::min(100.0, 100.0 * static_cast<double>(done) / static_cast<double>(total));
  std::fprintf(stderr, "%s%d %% (%lld of %lld frames)", input_.empty() ? "" : ", ",
               static_cast<int>(percent), static_cast<long long>(done),
               static_cast<long long>(total));
}

}  // namespace tavro::host
