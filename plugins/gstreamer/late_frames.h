#pragma once

// LateFrames: which pictures come too late to be shown, from what a sink says about those before.
// The sink's events come from its thread, the questions from the stream's.

#include <gst/gst.h>

#include <mutex>

namespace tavro::gstreamer {

class LateFrames {
 public:
  /// A quality-of-service event from downstream.
  void report(GstEvent* event);
  /// Lateness ends with the stream's flow.
  void forget();
  /// Whether the picture of that running time is too late. Ten in a row at most are, so that
  /// lateness that isn't the search's doing can't stop it for good.
  bool isLate(GstClockTime runningTime);

 private:
  static constexpr int mostInRow = 10;

  std::mutex lock_;
  GstClockTime earliest_ = GST_CLOCK_TIME_NONE;
  int inRow_ = 0;
};

inline void LateFrames::report(GstEvent* event) {
  GstClockTimeDiff jitter = 0;
  GstClockTime timestamp = GST_CLOCK_TIME_NONE;
  gst_event_parse_qos(event, nullptr, nullptr, &jitter, &timestamp);
  const std::lock_guard guard(lock_);
  // A picture that came early says that there is time.
  earliest_ = GST_CLOCK_TIME_IS_VALID(timestamp) && jitter > 0
                  ? timestamp + static_cast<GstClockTime>(jitter)
                  : GST_CLOCK_TIME_NONE;
}

inline void LateFrames::forget() {
  const std::lock_guard guard(lock_);
  earliest_ = GST_CLOCK_TIME_NONE;
  inRow_ = 0;
}

inline bool LateFrames::isLate(GstClockTime runningTime) {
  const std::lock_guard guard(lock_);
  const bool late = GST_CLOCK_TIME_IS_VALID(earliest_) && GST_CLOCK_TIME_IS_VALID(runningTime) &&
                    runningTime <= earliest_ && inRow_ < mostInRow;
  inRow_ = late ? inRow_ + 1 : 0;
  return late;
}

}  // namespace tavro::gstreamer
