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
  std::mutex lock_;
  GstClockTime earliest_ = GST_CLOCK_TIME_NONE;
  int inRow_ = 0;
};

}  // namespace tavro::gstreamer
