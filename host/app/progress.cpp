#include "host/app/progress.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace tavro::host {

namespace {
constexpr std::chrono::milliseconds interval{100};
constexpr const char* eraseLine = "\r\033[K";
}  // namespace

ProgressLine::ProgressLine(int64_t total)
    : total_(total),
      enabled_(total > 1 && isatty(STDERR_FILENO) == 1),
      next_(std::chrono::steady_clock::now() + interval) {}

ProgressLine::~ProgressLine() {
  if (shown_)
    std::fputs(eraseLine, stderr);
}

void ProgressLine::update(int64_t done) {
  if (!enabled_)
    return;
  const auto now = std::chrono::steady_clock::now();
  if (now < next_)
    return;
  next_ = now + interval;
  shown_ = true;
  const int64_t percent = std::min<int64_t>(100, done * 100 / total_);
  std::fprintf(stderr, "%stavro-fd: %lld %% (%lld of %lld frames)", eraseLine,
               static_cast<long long>(percent), static_cast<long long>(done),
               static_cast<long long>(total_));
}

}  // namespace tavro::host
