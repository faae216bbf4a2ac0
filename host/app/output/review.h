#pragma once

// Review: the moments of a video with hidden faces that somebody should look at, since a face may
// show there, each with the option that would hide it.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "host/app/output/drawing.h"
#include "host/app/search/frame_result.h"
#include "host/core/i420_frame.h"

namespace tavro::host {

struct Moment {
  double time = 0.0;               ///< seconds
  std::string what;                ///< a sentence
  std::string mend;                ///< an option to add to the command
  std::vector<uint8_t> jpeg = {};  ///< the place before hiding, if pictures are asked for
};

class Review {
 public:
  struct Request {
    const HidingOptions& hiding;  ///< what it hides already isn't told; must outlive the review
    int32_t smallestFace = 0;     ///< pixels; 0: what is seen in the whole frame
    int32_t largestSide = 0;      ///< of the pictures; 0: none are made
    int32_t colorMatrix = 2;      ///< that of VideoInput
  };

  explicit Review(const Request& request) : request_(request) {}

  /// The next frame, before anything is hidden in it. False if a picture can't be made.
  bool add(const I420Frame& picture, const FrameResult& result);

  /// All moments in the order of time, after the last frame.
  std::vector<Moment> moments();

 private:
  using FaceRect = TavroRTC::FDModule::FaceRect;

  /// What happens to a face, or to two, at one place.
  struct Event {
    FaceRect place;
    TimeSpan when;
    std::vector<uint8_t> jpeg = {};
  };
  struct Sighting {
    FaceRect face;
    double time = 0.0;
    std::optional<I420Frame> cut = {};  ///< what a picture would show
  };

  struct SmallFace {
    int64_t number;
    double time, side;
  };

  bool cutFrom(const I420Frame& picture, const FaceRect& face, std::optional<I420Frame>& cut) const;
  std::vector<uint8_t> encoded(const std::optional<I420Frame>& cut) const;
  bool isHidden(int64_t number) const;
  bool isInMiddle(const FaceRect& face) const;
  bool see(const I420Frame& picture, int64_t number, const FaceRect& face, double time);
  bool findCrossings(const I420Frame& picture, const FrameResult& result);
  void noteSize(int64_t number, const FaceRect& face, double time);
  void tellEnds(double time);
  void tellHide(double time, std::string what, Event event);

  Request request_;
  int32_t width_ = 0;
  int32_t height_ = 0;
  std::map<int64_t, Sighting> present_;  ///< the faces' latest, as long as they may come back
  std::map<std::pair<int64_t, int64_t>, Event> crossings_;
  std::vector<Moment> moments_;
  std::optional<SmallFace> smallest_;  ///< of those that might as well have been missed
  std::optional<double> latest_;       ///< time of the frame before
};

}  // namespace tavro::host
