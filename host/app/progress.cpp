#include "host/app/progress.h"

#include <algorithm>
#include <cstdio>

#include "host/app/process.h"

namespace tavro::host {

namespace {
constexpr std::chrono::milliseconds interval{100};
constexpr const char* eraseLine = "\r\033[K";
}  // namespace

ProgressLine::ProgressLine()
    : enabled_(isTerminal(stderr)), next_(std::chrono::steady_clock::now() + interval) {}

void ProgressLine::erase() {
  if (shown_)
    std::fputs(eraseLine, stderr);
  shown_ = false;
}

void ProgressLine::update(int64_t done, int64_t total) {
  if (!enabled_ || total <= 1)
    return;
  const auto now = std::chrono::steady_clock::now();
  if (now < next_)
    return;
  next_ = now + interval;
  shown_ = true;
  const double percent =
      std::min(100.0, 100.0 * static_cast<double>(done) / static_cast<double>(total));
  std::fprintf(stderr, "%stavro-fd: %d %% (%lld of %lld frames)", eraseLine,
               static_cast<int>(percent), static_cast<long long>(done),
               static_cast<long long>(total));
}

}  // namespace tavro::host
