#include "plugins/gstreamer/late_frames.h"

namespace tavro::gstreamer {

namespace {

constexpr int mostInRow = 10;

}  // namespace

void LateFrames::report(GstEvent* event) {
  GstClockTimeDiff jitter = 0;
  GstClockTime timestamp = GST_CLOCK_TIME_NONE;
  gst_event_parse_qos(event, nullptr, nullptr, &jitter, &timestamp);
  const std::lock_guard guard(lock_);
  // A picture that came early says that there is time.
  earliest_ = GST_CLOCK_TIME_IS_VALID(timestamp) && jitter > 0
                  ? timestamp + static_cast<GstClockTime>(jitter)
                  : GST_CLOCK_TIME_NONE;
}

void LateFrames::forget() {
  const std::lock_guard guard(lock_);
  earliest_ = GST_CLOCK_TIME_NONE;
  inRow_ = 0;
}

bool LateFrames::isLate(GstClockTime runningTime) {
  const std::lock_guard guard(lock_);
  const bool late = GST_CLOCK_TIME_IS_VALID(earliest_) && GST_CLOCK_TIME_IS_VALID(runningTime) &&
                    runningTime <= earliest_ && inRow_ < mostInRow;
  inRow_ = late ? inRow_ + 1 : 0;
  return late;
}

}  // namespace tavro::gstreamer
