#pragma once

// LivePace: which frames of a live input come too late. If the detector is slower than the input,
// frames pile up in the pipe or the network, and what is shown falls further and further behind.

namespace tavro::host {

class LivePace {
 public:
  /// True if the frame with the time stamp `time`, which was read at `now`, is to be left out.
  /// Seconds, `now` by a steady clock. Every frame that is read is asked about, in order.
  bool isLate(double time, double now) {
    constexpr double tolerance = 0.2;
    const double behind = now - time;
    if (!begun_ || behind < leastBehind_)
      leastBehind_ = behind;
    begun_ = true;
    const double late = behind - leastBehind_;
    // If leaving frames out doesn't bring us closer, it is the sender who was late.
    const bool catchesUp = !leavesOut_ || late < lastLate_ - (time - lastTime_) / 2;
    leavesOut_ = late > tolerance && catchesUp;
    if (late > tolerance && !catchesUp)
      leastBehind_ = behind;
    lastLate_ = late;
    lastTime_ = time;
    return leavesOut_;
  }

 private:
  bool begun_ = false;
  bool leavesOut_ = false;    ///< the frame before
  double leastBehind_ = 0.0;  ///< between time stamp and clock, for a frame in time
  double lastLate_ = 0.0;
  double lastTime_ = 0.0;
};

}  // namespace tavro::host
